#include "backend.hpp"

#include <cstring>
#include <filesystem>
#include <lmdb.h>

namespace {

constexpr const char* path = "/var/tmp/lmdb_bench";

/// A registry of names alone: each is given a page number, and the memory is elsewhere. Read
/// without a lock, written in transactions that are not forced to disk.
class lmdb_backend : public backend {
  public:
    lmdb_backend() {
        check(mdb_env_create(&_env));
        check(mdb_env_set_mapsize(_env, size_t{256} << 20U));
        check(mdb_env_open(_env, path, MDB_NOSUBDIR | MDB_NOSYNC, 0600));
        int left = 0; // places of readers that ended without a word, of which there are 126
        check(mdb_reader_check(_env, &left));
        MDB_txn* first = nullptr;
        check(mdb_txn_begin(_env, nullptr, 0, &first));
        check(mdb_dbi_open(first, nullptr, 0, &_names));
        check(mdb_txn_commit(first));
        check(mdb_txn_begin(_env, nullptr, MDB_RDONLY, &_reading));
        mdb_txn_reset(_reading);
    }

    void create(const std::string& name, size_t bytes) override {
        write([&](MDB_txn* txn) {
            MDB_val key = key_of(name);
            MDB_val value{sizeof bytes, &bytes};
            return mdb_put(txn, _names, &key, &value, MDB_NOOVERWRITE);
        });
    }

    void find(const std::string& name, size_t /*bytes*/) override {
        check(mdb_txn_renew(_reading));
        MDB_val key = key_of(name);
        MDB_val value;
        check(mdb_get(_reading, _names, &key, &value));
        mdb_txn_reset(_reading);
    }

    void remove(const std::string& name) override {
        write([&](MDB_txn* txn) {
            MDB_val key = key_of(name);
            return mdb_del(txn, _names, &key, nullptr);
        });
    }

    void touch(const std::string& /*name*/, size_t /*bytes*/) override {
        fail("a registry of names has no memory");
    }

    std::uintmax_t file_bytes() override {
        return std::filesystem::file_size(path) +
               std::filesystem::file_size(std::string{path} + "-lock");
    }

  private:
    static MDB_val key_of(const std::string& name) {
        return {name.size(), const_cast<char*>(name.data())};
    }

    static void check(int result) {
        if (result != 0) {
            fail(mdb_strerror(result));
        }
    }

    template <typename Change>
    void write(Change change) {
        MDB_txn* txn = nullptr;
        check(mdb_txn_begin(_env, nullptr, 0, &txn));
        check(change(txn));
        check(mdb_txn_commit(txn));
    }

    MDB_env* _env = nullptr;
    MDB_txn* _reading = nullptr;
    MDB_dbi _names = 0;
};

} // namespace

std::unique_ptr<backend> make_backend() {
    return std::make_unique<lmdb_backend>();
}
