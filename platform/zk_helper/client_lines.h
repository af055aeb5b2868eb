#pragma once

// The error lines of the C client. The client writes them to a callback, or, where its constructor takes no
// callback, to one stream for all clients; a line does not name its client. The latest line says why a
// connection fails, which no result code does.
//
// Threads: any.

#include <string>

namespace vyn::utilities::zookeeper {

/// The log callback of a client. Keeps what an error line says.
void OnClientLine(const char* line);
/// Passes the lines of clients without a callback to OnClientLine, from now on.
void CatchClientStream();
/// Returns: what the latest error line said, the empty text when there was none since the last
/// ForgetClientLine.
std::string LastClientLine();
/// To be called when a connection is made: an earlier line does not explain a later failure.
void ForgetClientLine();

}  // namespace vyn::utilities::zookeeper
