#include "velmora/platform/Network.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <string>

namespace velmora {

bool isLoopbackHost(std::string_view host) {
  if (host == "localhost") return true;
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  const std::string bare(host);  // inet_pton wants a terminated string
  in_addr v4{};
  if (::inet_pton(AF_INET, bare.c_str(), &v4) == 1) return (ntohl(v4.s_addr) >> 24) == 127;
  in6_addr v6{};
  return ::inet_pton(AF_INET6, bare.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

}  // namespace velmora
