#include "pelm_lab/refusal_watch.hpp"

namespace pelm::lab {

RefusalWatch::RefusalWatch(std::shared_ptr<platform::HttpTransport> inner) : inner_(std::move(inner)) {}

void RefusalWatch::send(platform::HttpRequest request, std::function<void(platform::HttpReply)> completion) {
    inner_->send(std::move(request),
                 [refused = refused_, completion = std::move(completion)](platform::HttpReply reply) {
                     if (reply.status == 401 || reply.status == 403) *refused = reply.status;
                     completion(std::move(reply));
                 });
}

}  // namespace pelm::lab
