// SPDX-License-Identifier: Apache-2.0
// The verbs of the command. Each is one file with one function that declares its flags, an example in its
// footer, and a callback that does the work.
//
// Errors: a callback throws; main prints "vantrel: " and the text on stderr and exits with 1. A wrong flag
//   exits with 2.
#pragma once

namespace CLI {
class App;
}

namespace VantrelCommand {

// A verb that ends with another exit status than 0 without an error text throws this.
struct Exit {
  int status;
};

using AddVerb = void (*)(CLI::App& app);

}  // namespace VantrelCommand
