// SPDX-License-Identifier: Apache-2.0
// Publisher: an agent's objects under their names on a Unix-domain socket, one JSON object a line
// (docs/formats/management-socket.md), for other processes to list, read, write, invoke and mount.
//
//   Ostra::Publisher publisher(dir + "/mgmt.sock");
//   publisher.exportObject("flushStatus", flushStatus);
//   loop.onReadable(publisher.fd(), [&] { publisher.dispatch(); });
//
// Invariants: a peer costs a bounded amount of memory whatever it sends and however slowly it reads. A peer
//   that reads nothing for `stallSeconds` while there is something to read is dropped; nobody waits for it.
//   Writing and invoking are for the owner and root, by the peer's credentials; the socket's mode keeps out
//   all but owner and group.
// Ownership: holds references to what is exported. The socket file is the publisher's: a dead agent's is
//   replaced, a live agent's is not, and it goes with the publisher.
// Threading: the agent's event loop. Not to be destroyed from inside dispatch().
// Cost: one dispatch() serves a few peers a slice each, some milliseconds at most apart from what an invoked
//   operation or a written attribute takes itself. With no peers, changes of exported objects cost nothing.
// Errors: the constructor throws std::runtime_error naming the path. Peers' mistakes are answered to them.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <memory>
#include <string>

#include "ostra/entity.h"

namespace Ostra {

class VANTREL_API Publisher {
 public:
  struct Options {
    uid_t owner = ::geteuid();    // who may write and invoke, besides root
    double stallSeconds = 30;     // how long a peer may read nothing
    std::size_t mostPeers = 512;  // at once
  };

  explicit Publisher(std::string path) : Publisher(std::move(path), Options()) {}
  Publisher(std::string path, Options options);
  ~Publisher();

  // Replaces what had the name. An object that is no Entity can be read, written and invoked, but not
  // mounted.
  void exportObject(std::string name, Ptr<Described> object);
  // Those who mounted it are told that it is gone.
  void withdraw(std::string const& name);

  // Readable when dispatch() has something to do.
  int fd() const;
  void dispatch();

  std::size_t peers() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace Ostra
