// SPDX-License-Identifier: Apache-2.0
// An agent publishes an object under a name, and a client mounts it: an object of the same type, whose
// watchers fire there. Both are played by one process here, in turns.
#include <stdlib.h>

#include <filesystem>
#include <iostream>

#include "ostra/mount.h"
#include "ostra/publish.h"
#include "vantrel/vantrel.h"

using Vantrel::DebugConfig;

class Watcher : public DebugConfig::Notifiee {
 public:
  void onVersion() override { std::cout << "the client sees version " << notifier()->version() << '\n'; }
};

int main() {
  std::string directory = std::filesystem::temp_directory_path() / "mount-XXXXXX";
  if (!mkdtemp(directory.data())) return 1;
  {
    auto const agents = Vantrel::debugConfigFactory("debugConfig");
    Ostra::Publisher publisher(directory + "/mgmt.sock");
    publisher.exportObject("debugConfig", agents);

    Ostra::Mounter client(directory + "/mgmt.sock");
    auto const clients = client.mount<DebugConfig>();
    Watcher watcher;
    watcher.notifierIs(clients);
    auto const turns = [&](auto const& done) {
      while (!done()) {
        publisher.dispatch();
        client.dispatch();
      }
    };
    turns([&] { return client.live(*clients); });
    std::cout << clients->name() << " is mounted, version " << clients->version() << '\n';
    agents->versionIs(7);
    turns([&] { return clients->version() == 7; });
    auto const asked = client.invoke(*clients, "versionInc", {U64{1}});
    turns([&] { return asked->result.has_value(); });
    std::cout << "the agent answers " << Ostra::toText(*asked->result) << '\n';
  }
  std::filesystem::remove_all(directory);
}
