#include "pelm_server/pelm_server.hpp"

#include "pelm_server/detail/server_core.hpp"

namespace pelm::server {

PelmServer::PelmServer(Options options) : core_(new detail::ServerCore(std::move(options))) {}

PelmServer::~PelmServer() {
    delete core_;
}

ContentStore& PelmServer::store() {
    return core_->store();
}

void PelmServer::start() {
    core_->start();
}

void PelmServer::stop() {
    core_->stopWithin(std::chrono::milliseconds::max());
}

bool PelmServer::stopWithin(std::chrono::milliseconds most) {
    return core_->stopWithin(most);
}

int PelmServer::port() const {
    return core_->port();
}

std::optional<std::string> PelmServer::caFile() const {
    const auto file = core_->caFile();
    if (!file) return std::nullopt;
    return file->string();
}

bool PelmServer::madeAuthority() const {
    return core_->madeAuthority();
}

std::string PelmServer::metricsText() {
    return core_->metricsText();
}

}  // namespace pelm::server
