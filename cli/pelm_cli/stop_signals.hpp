#pragma once

namespace pelm::cli {

/// SIGINT and SIGTERM for a program that stops cleanly. The first is taken by a thread of its own, which
/// raises a flag the program reads at no cost and wakes whoever waits for it; a second, 200 ms or more after
/// the first, ends the process at once as it would have ended with no one watching (sooner, it is taken for
/// the same press: wrappers such as `timeout` pass one on twice).
///
/// `watch()` must run before the program starts any thread: it blocks both signals in the calling thread, and
/// every thread made later inherits that, so that only the watcher takes them.
class StopSignals {
  public:
    /// The process's watcher, started by the first call.
    static StopSignals& watch();

    /// True once a stop signal has arrived; it stays true. An atomic read: cheap enough for every loop turn.
    bool requested() const;
    /// Waits for a stop signal; its number.
    int wait() const;
    /// 128 + the signal's number, as a shell reports a program that the signal ended; 0 before one came.
    int exitCode() const;
    /// While set, the first signal ends the process at once with `exitCode()`, after `line` is written to
    /// standard error: for the start-up of a server, which may wait on a database with nothing to save yet.
    void exitAtOnce(const char* line);
    void stopExitingAtOnce();

  private:
    StopSignals();
    void run();
};

}  // namespace pelm::cli
