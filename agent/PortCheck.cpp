#include "agent/PortCheck.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Binds as a Java server socket does (SO_REUSEADDR set): true unless the address is in use.
bool bindsOrUnknown(const struct sockaddr* address, socklen_t length, bool dualStack) {
  int fd = socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return true;
  }
  int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (dualStack) {
    int off = 0;
    setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof(off));
  }
  bool free = bind(fd, address, length) == 0 || errno != EADDRINUSE;
  close(fd);
  return free;
}

bool ipv4BindsOrUnknown(in_addr_t address, int port) {
  struct sockaddr_in bound;
  memset(&bound, 0, sizeof(bound));
  bound.sin_family = AF_INET;
  bound.sin_port = htons(static_cast<uint16_t>(port));
  bound.sin_addr.s_addr = htonl(address);
  return bindsOrUnknown(reinterpret_cast<struct sockaddr*>(&bound), sizeof(bound), false);
}

}  // namespace

bool isPortFreeToListen(const char* host, bool onlyLocal, int port) {
  if (port <= 0 || port > 65535) {
    return true;
  }
  if (host != nullptr) {
    struct addrinfo hints;
    memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    struct addrinfo* found = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &found) != 0 || found == nullptr) {
      return true;
    }
    bool free = true;
    if (found->ai_family == AF_INET) {
      struct sockaddr_in address;
      memcpy(&address, found->ai_addr, sizeof(address));
      address.sin_port = htons(static_cast<uint16_t>(port));
      free = bindsOrUnknown(reinterpret_cast<struct sockaddr*>(&address), sizeof(address), false);
    } else if (found->ai_family == AF_INET6) {
      struct sockaddr_in6 address;
      memcpy(&address, found->ai_addr, sizeof(address));
      address.sin6_port = htons(static_cast<uint16_t>(port));
      free = bindsOrUnknown(reinterpret_cast<struct sockaddr*>(&address), sizeof(address), false);
    }
    freeaddrinfo(found);
    return free;
  }
  if (onlyLocal) {
    return ipv4BindsOrUnknown(INADDR_LOOPBACK, port);
  }
  // Every address: the JVM listens on IPv6 and IPv4 at once where the machine has IPv6.
  struct sockaddr_in6 any6;
  memset(&any6, 0, sizeof(any6));
  any6.sin6_family = AF_INET6;
  any6.sin6_port = htons(static_cast<uint16_t>(port));
  any6.sin6_addr = in6addr_any;
  int probe = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (probe >= 0) {
    close(probe);
    return bindsOrUnknown(reinterpret_cast<struct sockaddr*>(&any6), sizeof(any6), true);
  }
  return ipv4BindsOrUnknown(INADDR_ANY, port);
}
