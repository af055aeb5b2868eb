#pragma once

// What the C client says of its errors. It writes lines, and tells nobody whose they are: to a callback, or,
// where a client cannot be given one when it is made, to one stream for all. The latest line tells why a
// connection fails, which no result does.
//
// Threads: any.

#include <string>

namespace vyn::utilities::zookeeper {

/// The log callback of a client. Keeps what an error line says.
void OnClientLine(const char* line);
/// Leads the lines of clients without a callback to OnClientLine, from now on.
void CatchClientStream();
/// Returns: what the latest error line said, the empty text when there was none since the last
/// ForgetClientLine.
std::string LastClientLine();
/// To be called when a connection stands: what was said before explains nothing that fails later.
void ForgetClientLine();

}  // namespace vyn::utilities::zookeeper
