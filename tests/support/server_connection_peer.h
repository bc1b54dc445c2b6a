// Test-only access to what TezaServerConnection keeps to itself: the remote mark, which no
// caller can set (copies and assignment carry it). Header-only, compiled into tests alone.
#ifndef TEZA_TESTS_SERVER_CONNECTION_PEER_H_
#define TEZA_TESTS_SERVER_CONNECTION_PEER_H_

#include <string>

#include "TezaServerConnection.h"

class TezaServerConnectionTestPeer {
  public:
    // A non-empty text marks `connection` remote, the empty text local again.
    static void SetRemote(TezaServerConnection& connection, const std::string& remote) {
        connection._remote = remote;
    }
};

#endif  // TEZA_TESTS_SERVER_CONNECTION_PEER_H_
