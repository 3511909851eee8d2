// The servers that the console starts on loopback, with clients that do not behave.
#include "LoopbackServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <future>
#include <string>

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
    int silentClient = -1;
    {
      std::promise<void> entered;
      LoopbackServer server(SOCK_STREAM, [&](int client) {
        entered.set_value();
        behaviour(client);
      });
      silentClient = zelctl::ConnectLoopback(server.Port());
      ASSERT_GE(silentClient, 0);
      entered.get_future().wait();
    }
    ::close(silentClient);
  }
}

TEST(LoopbackServerTest, ServesTheNextClientAfterRubbish) {
  LoopbackServer server(SOCK_STREAM, [](int client) {
    LoopbackRequest request;
    if (zelctl::ReadRequest(client, &request)) {
      zelctl::SendAnswer(client, "200 OK", "", request.Header("x-name") + request.body);
    }
  });
  for (const std::string& rubbish :
       {std::string("\r\n\r\n"), std::string("GET\r\n\r\n"), std::string("GET \n \r\n\r\n"),
        std::string(100000, 'x'),
        "POST / HTTP/1.1\r\nContent-Length: 999999999\r\n\r\n" + std::string()}) {
    const int client = zelctl::ConnectLoopback(server.Port());
    (void)zelctl::SendAll(client, rubbish);
    char byte = 0;
    EXPECT_LE(::recv(client, &byte, 1, 0), 0);
    ::close(client);
  }
  const int client = zelctl::ConnectLoopback(server.Port());
  ASSERT_TRUE(
      zelctl::SendAll(client, "POST / HTTP/1.1\r\nX-Name: Value\r\ncontent-LENGTH: 2\r\n\r\nok"));
  std::string answer(1000, '\0');
  answer.resize(
      static_cast<std::size_t>(::recv(client, answer.data(), answer.size(), MSG_WAITALL)));
  ::close(client);
  EXPECT_NE(answer.find("\r\n\r\nValueok"), std::string::npos) << answer;
}

}  // namespace
