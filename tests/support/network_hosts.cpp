#include "support/network_hosts.h"

#include "support/command.h"

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

#include <stdexcept>

namespace vyn::test {

namespace {

void Run(const std::string& command) {
  if (const CommandResult result = RunCommand(command); result.status != 0) {
    throw std::runtime_error(command + ": " + result.output);
  }
}

}  // namespace

bool NetworkHosts::Possible() {
  const std::string probe = "vynp" + std::to_string(getpid());
  const bool possible = geteuid() == 0 && RunCommand("ip netns add " + probe).status == 0;
  if (possible) {
    RunCommand("ip netns delete " + probe);
  }
  return possible;
}

NetworkHosts::NetworkHosts(int count) : mCount(count), mMark("vynt" + std::to_string(getpid())) {
  const std::string hub = mMark + "s";
  Run("ip netns add " + hub);
  Run("ip -n " + hub + " link add bridge type bridge && ip -n " + hub + " link set bridge up");
  for (int i = 0; i < mCount; ++i) {
    const std::string port = "port" + std::to_string(i);
    Run("ip netns add " + Name(i));
    Run("ip -n " + hub + " link add " + port + " type veth peer name eth0 netns " + Name(i));
    Run("ip -n " + hub + " link set " + port + " master bridge up");
    Run("ip -n " + Name(i) + " address add " + Address(i) + "/24 dev eth0");
    Run("ip -n " + Name(i) + " link set eth0 up && ip -n " + Name(i) + " link set lo up");
  }
}

NetworkHosts::~NetworkHosts() {
  for (int i = 0; i < mCount; ++i) {
    RunCommand("ip netns delete " + Name(i));
  }
  RunCommand("ip netns delete " + mMark + "s");
}

std::vector<std::string> NetworkHosts::Prefix(int host) const { return {"ip", "netns", "exec", Name(host)}; }

void NetworkHosts::Enter(int host) const {
  const int file = open(("/run/netns/" + Name(host)).c_str(), O_RDONLY | O_CLOEXEC);
  const bool entered = file >= 0 && setns(file, CLONE_NEWNET) == 0;
  close(file);
  if (!entered) {
    throw std::runtime_error("cannot enter " + Name(host));
  }
}

unsigned long long NetworkHosts::Sent(int host) const {
  const CommandResult result =
      RunCommand("ip netns exec " + Name(host) + " cat /sys/class/net/eth0/statistics/tx_bytes");
  return std::stoull(result.output);
}

}  // namespace vyn::test
