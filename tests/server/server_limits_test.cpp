// What pelm-server takes from a client, and what it keeps of it.
#include <gmock/gmock.h>

#include <pelm/platform/linux/curl_transport.hpp>

#include "pelm_server/store_factory.hpp"
#include "support/server_fixture.hpp"
#include "support/temp_folder.hpp"

namespace pelm::server {
namespace {

class ServerLimits : public testing::ServerTest {
  protected:
    // One exchange through the real transport, with the headers and body given.
    platform::HttpReply exchange(std::string method, std::string path,
                                 std::vector<std::pair<std::string, std::string>> headers = {},
                                 std::string body = {}) {
        std::optional<platform::HttpReply> reply;
        platform_->http->send(
            {std::move(method), "https://" + server_->host() + path, std::move(headers), std::move(body)},
            [&](platform::HttpReply r) { reply = std::move(r); });
        settle();
        return reply.value_or(platform::HttpReply{0, {}, "no reply"});
    }
    std::string status() const { return "/api/v1/status?app_token=" + std::string(testing::kToken); }
};

TEST_F(ServerLimits, TooManyOrTooLargeHeadersAndTooLargeBodiesAreRefusedWithTheirStatus) {
    std::vector<std::pair<std::string, std::string>> many;
    for (int i = 0; i < 101; ++i) many.emplace_back("X-Filler-" + std::to_string(i), "1");
    EXPECT_EQ(exchange("GET", status(), many).status, 431);
    many.resize(90);  // the transport and the server add a few of their own
    EXPECT_EQ(exchange("GET", status(), many).status, 200);

    const std::vector<std::pair<std::string, std::string>> large(3, {"X-Large", std::string(6000, 'a')});
    EXPECT_EQ(exchange("GET", status(), large).status, 431);

    const auto form = "app_token=" + std::string(testing::kToken) + "&session[app_version]=";
    const std::vector<std::pair<std::string, std::string>> formType{
        {"Content-Type", "application/x-www-form-urlencoded"}};
    const auto over =
        exchange("POST", "/api/v1/sessions", formType, form + std::string(PelmServer::kMaxBodyBytes, 'v'));
    EXPECT_EQ(over.status, 413);
    EXPECT_THAT(over.body, ::testing::HasSubstr("larger than the limit of 1 MiB (1048576 bytes)"));
    // Just under the limit is taken, form or not.
    const auto under = form + std::string(PelmServer::kMaxBodyBytes - form.size() - 1, 'v');
    EXPECT_EQ(exchange("POST", "/api/v1/sessions", formType, under).status, 201);
    EXPECT_EQ(exchange("POST", "/api/v1/sessions", formType, form + "1").status, 201);
    EXPECT_EQ(server_->store().sessions().size(), 2u);
}

TEST(ServerPorts, ASecondServerOnAPortInUseFailsNamingItAndAMissingDatabaseIsNotMade) {
    const testing::TempFolder folder("pelm-server-test");
    PelmServer::Options options;
    options.certificateFolder = folder.path();
    PelmServer first(options);
    first.start();

    options.port = first.port();
    PelmServer second(options);
    try {
        second.start();
        FAIL() << "two servers listen on port " << first.port();
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), ::testing::EndsWith(std::to_string(first.port()) + ": the port is in use"));
    }

    const auto missing = (folder.path() / "typo.db").string();
    EXPECT_THROW(openContentStore(missing, ContentStore::Open::ExistingOnly), std::runtime_error);
    EXPECT_FALSE(std::filesystem::exists(missing));
}

}  // namespace
}  // namespace pelm::server
