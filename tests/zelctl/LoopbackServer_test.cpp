// The servers that the console starts on loopback, with clients that do not behave.
#include "LoopbackServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace {

using zelctl::LoopbackRequest;
using zelctl::LoopbackServer;

// Each of these once kept the server from ending.
TEST(LoopbackServerTest, EndsWhateverItsClientDoes) {
  const LoopbackServer::Serve behaviours[] = {
      [](int client) {
        while (zelctl::SendAll(client, std::string(64 * 1024, 'x'))) {
        }
      },
      [](int client) {
        LoopbackRequest never;
        while (!zelctl::ReadRequest(client, &never) && ::send(client, "", 0, MSG_NOSIGNAL) == 0) {
        }
      }};
  for (const LoopbackServer::Serve& behaviour : behaviours) {
    std::promise<void> entered;
    auto server = std::make_unique<LoopbackServer>(SOCK_STREAM, [&](int client) {
      entered.set_value();
      behaviour(client);
    });
    const int silentClient = zelctl::ConnectLoopback(server->Port());
    ASSERT_GE(silentClient, 0);
    entered.get_future().wait();
    server.reset();
    ::close(silentClient);
  }
}

TEST(LoopbackServerTest, ServesTheNextClientAfterRubbish) {
  LoopbackServer server(SOCK_STREAM, [](int client) {
    LoopbackRequest request;
    if (zelctl::ReadRequest(client, &request)) {
      (void)zelctl::SendAll(client, request.Header("x-name") + ":" + request.body);
    }
  });
  const std::pair<std::string, std::string> cases[] = {
      {"\r\n\r\n", ""},
      {"GET \n \r\n\r\n", ""},
      {std::string(100000, 'x'), ""},
      {"POST / HTTP/1.1\r\nContent-Length: 999999999\r\n\r\n", ""},
      {"POST / HTTP/1.1\r\nX-Name: Value\r\ncontent-LENGTH: 2\r\n\r\nok", "Value:ok"},
  };
  for (const auto& [request, answer] : cases) {
    const int client = zelctl::ConnectLoopback(server.Port());
    (void)zelctl::SendAll(client, request);
    char bytes[100] = "";
    (void)::recv(client, bytes, sizeof(bytes) - 1, MSG_WAITALL);
    EXPECT_EQ(bytes, answer);
    ::close(client);
  }
}

}  // namespace
