#include "common/rpc/network.h"

#include "support/captured_log.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace vyn::common {
namespace {

std::set<std::string> Subnets(const std::string& text, unsigned int expectedStatus = 0) {
  std::set<unsigned int> subnets;
  EXPECT_EQ(GetSubnets(text, subnets), expectedStatus) << text;
  std::set<std::string> texts;
  for (const unsigned int subnet : subnets) {
    char buffer[INET_ADDRSTRLEN];
    texts.insert(inet_ntop(AF_INET, &subnet, buffer, sizeof(buffer)));
  }
  return texts;
}

TEST(NetworkTest, Subnets) {
  using Set = std::set<std::string>;
  EXPECT_EQ(Subnets("192.168.2.1/24"), Set{"192.168.2.0"});
  EXPECT_EQ(Subnets(" 10.1.2.3 / 9 ,192.168.2.77/32"), (Set{"10.0.0.0", "192.168.2.77"}));
  EXPECT_EQ(Subnets("255.255.255.255/1"), Set{"128.0.0.0"});
  EXPECT_EQ(Subnets("", 1), Set{});
  for (const char* entry : {"10.0.0.1", "10.0.0.1/", "/24", "10.0.0/24", "host/24", "10.0.0.1/0",
                            "10.0.0.1/024", "10.0.0.1/33", "10.0.0.1/-1", "10.0.0.1/+8", "10.0.0.1/2a",
                            "10.0.0.1/24/8", "10.0.0.1/99999999999999999999999999", "::1/64"}) {
    EXPECT_EQ(Subnets(entry), Set{}) << entry;
    EXPECT_EQ(Subnets(std::string(entry) + ",127.0.0.1/8"), Set{"127.0.0.0"}) << entry;
  }
}

TEST(NetworkTest, FindsTheLoopbackDevice) {
  std::set<std::string> addresses;
  EXPECT_EQ(GetNodeIPSet(addresses), 0U);
  EXPECT_EQ(addresses.count("127.0.0.1"), 1U);

  test::CapturedLog log;
  std::vector<std::string> devices{"kept"};
  EXPECT_EQ(ResolveIterfaces(devices, "127.0.0.1/8"), 0U);
  EXPECT_EQ(devices.front(), "kept");
  EXPECT_NE(std::find(devices.begin(), devices.end(), "lo"), devices.end());
  devices.clear();
  EXPECT_EQ(ResolveIterfaces(devices, "203.0.113.1/32"), 0U);
  EXPECT_EQ(ResolveIterfaces(devices, "127.0.0.1/33,x"), 1U);
  EXPECT_TRUE(devices.empty());
  EXPECT_EQ(log.Texts(3),
            (std::vector<std::string>{
                "Ip mask '127.0.0.1/33,x' is invalid, should be something like '192.168.2.1/24'"}));
}

TEST(NetworkTest, SplitsAddressAndPort) {
  struct Case {
    std::string text;
    unsigned int status;
    std::string ip;
    short port;
    std::string line;
  };
  for (const Case& item : {
           Case{"10.0.0.1:32767", 0, "10.0.0.1", 32767, ""},
           Case{":1", 0, "", 1, ""},
           Case{"10.0.0.1", 2000039, "old", -1, ""},
           Case{"h:32768", 2000013, "h", -1, "Invalid port <32768>, it must be int16_t"},
           Case{"h:0", 2000013, "h", -1, "Invalid port <0>, it must be int16_t"},
           Case{"h:-1", 2000013, "h", -1, "Invalid port <-1>, it must be int16_t"},
           Case{"h:", 2000039, "h", -1, "Failed to parse port from <>"},
           Case{"h:00", 2000039, "h", -1, "Failed to parse port from <00>"},
           Case{"h:1:2", 2000039, "h", -1, "Failed to parse port from <1:2>"},
           Case{"h:99999999999999999999", 2000039, "h", -1,
                "Failed to parse port from <99999999999999999999>"},
       }) {
    test::CapturedLog log;
    std::string ip = "old";
    short port = -1;
    EXPECT_EQ(SplitIpAndPort(item.text, ip, port), item.status) << item.text;
    EXPECT_EQ(ip, item.ip) << item.text;
    EXPECT_EQ(port, item.port) << item.text;
    EXPECT_EQ(log.Texts(4),
              item.line.empty() ? std::vector<std::string>() : std::vector<std::string>{item.line});
  }
}

}  // namespace
}  // namespace vyn::common
