#pragma once

// The node's network interfaces and addresses as text. Any thread may call these functions. They log errors
// and do not write the last-error record.

#include <set>
#include <string>
#include <vector>

namespace vyn::common {

/// Reads a comma-separated list of entries like "192.168.2.1/24" (mask length 1 to 32) and adds the network
/// address of each, in network byte order, to `subnets`. An entry of another form is skipped. Returns: 0; 1
/// for an empty list.
unsigned int GetSubnets(const std::string& text, std::set<unsigned int>& subnets);

/// Adds every IPv4 and IPv6 address of this node, loopback included, in text form. Returns: 0, or 1 when the
/// system cannot list them.
unsigned int GetNodeIPSet(std::set<std::string>& addresses);

/// Appends the name of each interface whose IPv4 network is in `subnets`, once for every address that
/// matches.
void FilterDevice(std::vector<std::string>& devices, std::set<unsigned int>& subnets);

/// GetSubnets, then FilterDevice. Returns: 0, also when no device matches; 1 when `ipMasks` names no subnet.
unsigned int ResolveIterfaces(std::vector<std::string>& devices, const std::string& ipMasks);

/// Splits "ip:port" at the first ":". Returns: 0; 2000039 without ":" or when the port is no number; 2000013
/// when the port lies outside 1 to 32767. `ip` is set whenever there is a ":", `port` only on success.
unsigned int SplitIpAndPort(const std::string& text, std::string& ip, short& port);

}  // namespace vyn::common
