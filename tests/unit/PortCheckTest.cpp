#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "agent/PortCheck.h"

namespace {

// A socket listening on 'address' (IPv4) at a port the kernel picks; its port in *port.
int listenOn(in_addr_t address, int* port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in bound;
  memset(&bound, 0, sizeof(bound));
  bound.sin_family = AF_INET;
  bound.sin_addr.s_addr = htonl(address);
  bound.sin_port = 0;
  if (fd < 0 || bind(fd, reinterpret_cast<struct sockaddr*>(&bound), sizeof(bound)) != 0 || listen(fd, 1) != 0) {
    return -1;
  }
  socklen_t length = sizeof(bound);
  getsockname(fd, reinterpret_cast<struct sockaddr*>(&bound), &length);
  *port = ntohs(bound.sin_port);
  return fd;
}

TEST(PortCheck, APortSomeoneListensOnIsTakenForEveryAddressThatOverlapsIt) {
  int port = 0;
  int fd = listenOn(INADDR_ANY, &port);
  ASSERT_GE(fd, 0);
  EXPECT_FALSE(isPortFreeToListen(nullptr, false, port));
  EXPECT_FALSE(isPortFreeToListen(nullptr, true, port));
  EXPECT_FALSE(isPortFreeToListen("127.0.0.1", false, port));
  close(fd);
  // Closed, the port is free again (the check itself leaves nothing bound behind).
  EXPECT_TRUE(isPortFreeToListen(nullptr, false, port));
  EXPECT_TRUE(isPortFreeToListen(nullptr, false, port));
}

TEST(PortCheck, LoopbackOnlyListenersLeaveOtherAddressesAndUncheckableCasesPass) {
  int port = 0;
  int fd = listenOn(INADDR_LOOPBACK, &port);
  ASSERT_GE(fd, 0);
  EXPECT_FALSE(isPortFreeToListen(nullptr, true, port));
  // Not a port, or a host that doesn't resolve: left to the runtime.
  EXPECT_TRUE(isPortFreeToListen(nullptr, false, 0));
  EXPECT_TRUE(isPortFreeToListen("no-such-host.invalid", false, port));
  close(fd);
}

}  // namespace
