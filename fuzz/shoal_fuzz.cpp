// SPDX-License-Identifier: Apache-2.0
// A table file with the fuzzer's bytes laid over it, through every operation a reader and the next writer
// have. The input is a list of {offset 4, length 1, bytes}: small inputs reach every part of a file that is
// hundreds of kilobytes long.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>

#include "pallo/exception.h"
#include "shoal/inspect.h"
#include "shoal/reader_table.h"
#include "shoal/writer_table.h"
#include "vantrel/core/tables.h"

namespace {

using Config = Vantrel::EntryConfig;
using Vantrel::EntryKey;

std::string pathOfTable() {
  static std::string const dir = [] {
    std::string name = "/dev/shm/shoal-fuzz-XXXXXX";
    if (!mkdtemp(name.data())) std::abort();
    return name;
  }();
  return dir + "/table";
}

// A small table, the same for every input but for its random hash.
std::string const& wholeTable() {
  static std::string const bytes = [] {
    std::string const path = pathOfTable();
    {
      Shoal::WriterTable<Config> writer(path, {.replace = true, .ringEntries = 16});
      for (U64 key = 1; key <= 40; ++key) writer.entryIs(Config(EntryKey(key), Vantrel::OpId(key), 1, 2, 3));
      for (U64 key = 30; key <= 40; ++key) writer.entryDel(EntryKey(key));
    }
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }();
  return bytes;
}

std::string damaged(std::span<std::uint8_t const> input) {
  std::string bytes = wholeTable();
  while (input.size() > 5) {
    U32 offset;
    std::memcpy(&offset, input.data(), sizeof offset);
    std::size_t const length = std::min<std::size_t>(input[4], input.size() - 5);
    std::size_t const at = offset % bytes.size();
    std::memcpy(bytes.data() + at, input.data() + 5, std::min(length, bytes.size() - at));
    input = input.subspan(5 + length);
  }
  return bytes;
}

template <class Use>
void surviving(Use use) {
  try {
    use();
  } catch (Pallo::Exception const&) {
  }
}

void useEverything(std::string const& path) {
  surviving([&] {
    auto reader = Ostra::make<Shoal::ReaderTable<Config>>(path);
    surviving([&] { reader->size(); });
    for (U64 key = 0; key < 48; ++key) surviving([&] { reader->entry(EntryKey(key)); });
    surviving([&] {
      for (auto place = reader->first(); place; place = reader->next(*place)) {
      }
    });
    surviving([&] { reader->dispatch(); });
  });
  surviving([&] { Shoal::inspect(path); });
  surviving([&] {
    Shoal::WriterTable<Config> writer(path);
    writer.entryIs(Config(EntryKey(3), Vantrel::OpId(9), 1, 2, 3));
    writer.entryDel(EntryKey(4));
  });
  surviving([&] { Shoal::repair(path); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string const bytes = damaged({data, size});
  std::ofstream(pathOfTable(), std::ios::binary | std::ios::trunc) << bytes;
  useEverything(pathOfTable());
  return 0;
}
