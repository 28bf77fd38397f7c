// Waking the threads that wait on idle kept-alive connections when a server stops.
//
// The HTTP library's worker keeps a kept-alive connection open between requests
// and notices a stop only when the keep-alive time runs out, so a stop with an
// idle client attached would wait that long. Shutting down the read side of the
// server's accepted connections makes each such wait end at once: the worker sees
// end of input and closes the connection. A request whose reply is being written
// is answered as usual; one still being read is cut short and is not answered,
// so its client sends it again later (nothing unanswered was stored as accepted).
#pragma once

namespace zubcollector {

/// Shuts the read side of this process's accepted TCP connections on `port`
/// (the local port a server is bound to). Listening sockets and connections to
/// other ports (database clients, for one) are left alone.
void wakeIdleConnections(int port);

}  // namespace zubcollector
