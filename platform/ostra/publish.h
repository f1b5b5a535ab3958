// SPDX-License-Identifier: Apache-2.0
// Publisher: an agent's objects under their names on a Unix-domain socket, one JSON object a line
// (docs/formats/management-socket.md), for other processes to list, read, write, invoke and mount.
//
//   Ostra::Publisher publisher(dir + "/mgmt.sock");
//   publisher.exportObject("flushStatus", flushStatus);
//   loop.onReadable(publisher.fd(), [&] { publisher.dispatch(); });
//
// Invariants: a peer costs a bounded amount of memory whatever it sends and however slowly it reads. A peer
//   that reads nothing for `stallSeconds` while there is something to read is dropped, and so is one that for
//   `idleSeconds` asks nothing and has nothing mounted. Writing and invoking are for the owner and root, by
//   the peer's credentials; the socket's mode keeps out all but owner and group. Peers take at most
//   `mostPeers` file descriptors, and always leave 64 and a quarter of what the process may open to the rest
//   of it. A user other than the owner and root holds at most half of the places; when all are taken, the
//   owner and root get that of the peer that has been idle longest, of the user that holds most.
// Ownership: holds references to what is exported. The socket file is the publisher's: a dead agent's is
//   replaced, a live agent's is not, and it goes with the publisher.
// Threading: the agent's event loop. Must not be destroyed from inside dispatch().
// Cost: dispatch() serves one peer after the other, a slice each, and begins nothing new when `turnSeconds`
//   have passed; who is left is first in the next one. It so takes `turnSeconds` and what was begun last: a
//   line of at most 256 members, or a request, of which the longest takes a millisecond to parse. What an
//   invoked operation or a written attribute takes itself comes on top, one such request a peer and dispatch.
//   Four times in the shorter of `stallSeconds` and `idleSeconds` it also looks once at each peer, and when
//   the last peer that follows an object leaves, its log is freed (half a millisecond for the longest). With
//   no peers, changes of exported objects cost nothing.
// Errors: the constructor throws std::runtime_error naming the path. Peers' mistakes are answered to them.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <memory>
#include <string>

#include "ostra/ptr.h"

namespace Ostra {

class Described;

class VANTREL_API Publisher {
 public:
  struct Options {
    uid_t owner = ::geteuid();    // who may write and invoke, besides root
    std::size_t mostPeers = 512;  // at once; fewer where the process may open few files
    double stallSeconds = 30;     // how long a peer may read nothing
    double idleSeconds = 60;      // how long a peer may ask nothing while nothing is mounted
    double turnSeconds = 0.0005;  // of the framework's clock, for one dispatch()
  };

  explicit Publisher(std::string const& path) : Publisher(path, Options()) {}
  Publisher(std::string const& path, Options const& options);
  Publisher(Publisher const&) = delete;
  Publisher& operator=(Publisher const&) = delete;
  ~Publisher();

  // Replaces what had the name. An object that is no Entity can be read, written and invoked, but not
  // mounted.
  void exportObject(std::string name, Ptr<Described> object);
  // Those who mounted it are told that it is gone.
  void withdraw(std::string const& name);

  // Readable when dispatch() has something to do.
  int fd() const;
  void dispatch();
  // For an agent in the middle of something long: the same, but requests that write, delete or invoke wait
  // for the next dispatch(), and so does what their peers asked behind them. Called from inside a request
  // that acts on the agent, dispatch() does no more than this. Costs a system call when there is nothing to
  // do.
  void dispatchReadOnly();

  std::size_t peers() const;

 private:
  class Server;
  std::unique_ptr<Server> const server_;
};

}  // namespace Ostra
