#pragma once

#include <glib.h>
#include <pelm/platform/main_queue.hpp>

#include <chrono>
#include <deque>
#include <map>
#include <mutex>

// The library's main queue on a GLib main context: its tasks run in the thread that iterates the context, in
// between the app's own events, so the app needs no second loop and no locks of its own.
class GLibMainQueue final : public pelm::platform::MainQueue {
  public:
    explicit GLibMainQueue(GMainContext* context) : context_(g_main_context_ref(context)) {}
    ~GLibMainQueue() override {
        std::lock_guard lock(mutex_);
        for (auto& [id, source] : timers_) destroy(source);
        if (drain_) destroy(drain_);
        g_main_context_unref(context_);
    }
    GLibMainQueue(const GLibMainQueue&) = delete;
    GLibMainQueue& operator=(const GLibMainQueue&) = delete;

    pelm::Date now() const override { return pelm::systemNow(); }

    // Tasks keep their order: they wait in one list, drained by a single idle source.
    void post(Task task) override {
        std::lock_guard lock(mutex_);
        ready_.push_back(std::move(task));
        if (drain_) return;
        drain_ = g_idle_source_new();
        g_source_set_callback(drain_, &GLibMainQueue::drainReady, this, nullptr);
        g_source_attach(drain_, context_);
    }

    TimerId postAfter(std::chrono::milliseconds delay, Task task) override {
        std::lock_guard lock(mutex_);
        const TimerId id = nextTimer_++;
        GSource* source = g_timeout_source_new(static_cast<guint>(std::max<std::int64_t>(0, delay.count())));
        g_source_set_callback(source, &GLibMainQueue::fireTimer, new Timer{this, id, std::move(task)},
                              [](gpointer timer) { delete static_cast<Timer*>(timer); });
        g_source_attach(source, context_);
        timers_.emplace(id, source);
        return id;
    }

    void cancel(TimerId timer) override {
        std::lock_guard lock(mutex_);
        if (const auto found = timers_.find(timer); found != timers_.end()) {
            destroy(found->second);
            timers_.erase(found);
        }
    }

  private:
    struct Timer {
        GLibMainQueue* queue;
        TimerId id;
        Task task;
    };

    static void destroy(GSource* source) {
        g_source_destroy(source);
        g_source_unref(source);
    }

    static gboolean drainReady(gpointer self) {
        auto* queue = static_cast<GLibMainQueue*>(self);
        std::deque<Task> tasks;
        {
            std::lock_guard lock(queue->mutex_);
            tasks.swap(queue->ready_);
            g_source_unref(queue->drain_);
            queue->drain_ = nullptr;
        }
        for (auto& task : tasks) task();  // a task posted meanwhile waits for the next idle round
        return G_SOURCE_REMOVE;
    }

    static gboolean fireTimer(gpointer data) {
        auto* timer = static_cast<Timer*>(data);
        {
            std::lock_guard lock(timer->queue->mutex_);
            const auto found = timer->queue->timers_.find(timer->id);
            if (found == timer->queue->timers_.end()) return G_SOURCE_REMOVE;  // cancelled meanwhile
            g_source_unref(found->second);
            timer->queue->timers_.erase(found);
        }
        timer->task();
        return G_SOURCE_REMOVE;
    }

    GMainContext* context_;
    std::mutex mutex_;
    std::deque<Task> ready_;
    GSource* drain_ = nullptr;
    std::map<TimerId, GSource*> timers_;
    TimerId nextTimer_ = 1;
};
