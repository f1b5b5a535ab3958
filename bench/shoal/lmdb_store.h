// SPDX-License-Identifier: Apache-2.0
// The same records in LMDB: a read transaction a read, as a reader needs that wants the present state, and a
// commit a write, without synchronisation to disk.
#pragma once

#include <lmdb.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "bench/shoal/world.h"

namespace ShoalBench {

class LmdbStore {
 public:
  LmdbStore(std::string const& path, U64 records) {
    must(mdb_env_create(&env_));
    must(mdb_env_set_mapsize(env_, (records + 100000) * 2048));
    must(mdb_env_open(env_, path.c_str(), MDB_NOSUBDIR | MDB_NOSYNC | MDB_WRITEMAP | MDB_NORDAHEAD, 0600));
    write([this](MDB_txn* txn) { must(mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &dbi_)); });
  }
  ~LmdbStore() {
    if (reading_) mdb_txn_abort(reading_);
    mdb_env_close(env_);
  }
  LmdbStore(LmdbStore const&) = delete;
  LmdbStore& operator=(LmdbStore const&) = delete;

  void fill(std::vector<Config> const& records) {
    write([&](MDB_txn* txn) {
      for (Config const& record : records) put(txn, record);
    });
  }
  void entryIs(Config const& record) {
    write([&](MDB_txn* txn) { put(txn, record); });
  }
  void entryDel(U64 key) {
    write([&](MDB_txn* txn) {
      MDB_val k{sizeof key, &key};
      must(mdb_del(txn, dbi_, &k, nullptr));
    });
  }
  Config entry(U64 key) {
    must(reading_ ? mdb_txn_renew(reading_) : mdb_txn_begin(env_, nullptr, MDB_RDONLY, &reading_));
    MDB_val k{sizeof key, &key};
    MDB_val value;
    must(mdb_get(reading_, dbi_, &k, &value));
    Config const record = decoded(static_cast<std::byte const*>(value.mv_data));
    mdb_txn_reset(reading_);
    return record;
  }

 private:
  static void must(int code) {
    if (code != 0) throw std::runtime_error(mdb_strerror(code));
  }
  template <class Work>
  void write(Work work) {
    MDB_txn* txn;
    must(mdb_txn_begin(env_, nullptr, 0, &txn));
    work(txn);
    must(mdb_txn_commit(txn));
  }
  void put(MDB_txn* txn, Config const& record) {
    std::byte image[Traits::bytes] = {};
    Traits::encode(record, image);
    U64 key = record.key().value();
    MDB_val k{sizeof key, &key};
    MDB_val value{sizeof image, image};
    must(mdb_put(txn, dbi_, &k, &value, 0));
  }

  MDB_env* env_ = nullptr;
  MDB_dbi dbi_ = 0;
  MDB_txn* reading_ = nullptr;
};

}  // namespace ShoalBench
