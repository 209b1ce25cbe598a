// SPDX-License-Identifier: Apache-2.0
//
// VolatileDisk: SQLite's files in memory, on a disk that fails at a chosen change: from then on every change
// fails, as for a process that was killed there. Afterwards the power may fail, too: of the changes that no
// sync has made durable, any subset may be on the disk.
#pragma once

#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace telvora::test {

class VolatileDisk {
  public:
    static constexpr char kVfs[] = "volatile-disk";

    VolatileDisk() {
        sqlite3_initialize();
        vfs_ = *sqlite3_vfs_find(nullptr);
        vfs_.zName = kVfs;
        vfs_.pAppData = this;
        vfs_.szOsFile = sizeof(Handle);
        vfs_.iVersion = 1;
        vfs_.xOpen = [](sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* outFlags) {
            new (file) Handle{{&kMethods}, &of(vfs), &of(vfs).files_[name]};
            if (outFlags != nullptr) *outFlags = flags;
            return SQLITE_OK;
        };
        vfs_.xDelete = [](sqlite3_vfs* vfs, const char* name, int) {
            if (const int code = of(vfs).change(); code != SQLITE_OK) return code;
            of(vfs).files_.erase(name);
            return SQLITE_OK;
        };
        vfs_.xAccess = [](sqlite3_vfs* vfs, const char* name, int, int* there) {
            *there = of(vfs).files_.contains(name) ? 1 : 0;
            return SQLITE_OK;
        };
        sqlite3_vfs_register(&vfs_, 0);
    }
    ~VolatileDisk() { sqlite3_vfs_unregister(&vfs_); }
    VolatileDisk(const VolatileDisk&) = delete;
    VolatileDisk& operator=(const VolatileDisk&) = delete;

    // The change with this number, from now on, and all later ones fail with `code`.
    void failFrom(size_t change, int code = SQLITE_IOERR) {
        changesLeft_ = change;
        failure_ = code;
    }
    void mend() { changesLeft_ = SIZE_MAX; }
    // Loses a random subset of the changes that are not durable.
    void losePower(unsigned seed) {
        std::mt19937 random(seed);
        for (auto& [name, file] : files_) {
            file.now = file.durable;
            for (const auto& change : file.pending) {
                if (random() % 2 == 0) change(file.now);
            }
            file.durable = file.now;
            file.pending.clear();
        }
    }
    void forget() { files_.clear(); }
    std::string& content(const std::string& name) { return files_.at(name).now; }
    bool holds(const std::string& text) const {
        return std::any_of(files_.begin(), files_.end(),
                           [&](const auto& file) { return file.second.now.find(text) != text.npos; });
    }

  private:
    struct File {
        std::string now;
        std::string durable;
        std::vector<std::function<void(std::string&)>> pending;

        void apply(std::function<void(std::string&)> change) {
            change(now);
            pending.push_back(std::move(change));
        }
    };
    struct Handle {
        sqlite3_file base;
        VolatileDisk* disk;
        File* file;
    };

    static VolatileDisk& of(sqlite3_vfs* vfs) { return *static_cast<VolatileDisk*>(vfs->pAppData); }
    static Handle& of(sqlite3_file* file) { return *reinterpret_cast<Handle*>(file); }
    int change() {
        if (changesLeft_ == 0) return failure_;
        --changesLeft_;
        return SQLITE_OK;
    }

    static int read(sqlite3_file* file, void* buffer, int count, sqlite3_int64 offset) {
        const std::string& content = of(file).file->now;
        std::memset(buffer, 0, static_cast<size_t>(count));
        const auto begin = std::min(content.size(), static_cast<size_t>(offset));
        const size_t there = std::min(content.size() - begin, static_cast<size_t>(count));
        std::memcpy(buffer, content.data() + begin, there);
        return there == static_cast<size_t>(count) ? SQLITE_OK : SQLITE_IOERR_SHORT_READ;
    }
    static int write(sqlite3_file* file, const void* buffer, int count, sqlite3_int64 offset) {
        if (const int code = of(file).disk->change(); code != SQLITE_OK) return code;
        const std::string bytes(static_cast<const char*>(buffer), static_cast<size_t>(count));
        of(file).file->apply([bytes, offset](std::string& content) {
            const size_t end = static_cast<size_t>(offset) + bytes.size();
            if (content.size() < end) content.resize(end);
            content.replace(static_cast<size_t>(offset), bytes.size(), bytes);
        });
        return SQLITE_OK;
    }
    static int truncate(sqlite3_file* file, sqlite3_int64 size) {
        if (const int code = of(file).disk->change(); code != SQLITE_OK) return code;
        of(file).file->apply([size](std::string& content) { content.resize(static_cast<size_t>(size)); });
        return SQLITE_OK;
    }
    static int sync(sqlite3_file* file, int) {
        if (const int code = of(file).disk->change(); code != SQLITE_OK) return code;
        of(file).file->durable = of(file).file->now;
        of(file).file->pending.clear();
        return SQLITE_OK;
    }

    static constexpr sqlite3_io_methods kMethods = {
        .iVersion = 1,
        .xClose = [](sqlite3_file*) { return SQLITE_OK; },
        .xRead = read,
        .xWrite = write,
        .xTruncate = truncate,
        .xSync = sync,
        .xFileSize =
            [](sqlite3_file* file, sqlite3_int64* size) {
                *size = static_cast<sqlite3_int64>(of(file).file->now.size());
                return SQLITE_OK;
            },
        .xLock = [](sqlite3_file*, int) { return SQLITE_OK; },
        .xUnlock = [](sqlite3_file*, int) { return SQLITE_OK; },
        .xCheckReservedLock =
            [](sqlite3_file*, int* reserved) {
                *reserved = 0;
                return SQLITE_OK;
            },
        .xFileControl = [](sqlite3_file*, int, void*) { return SQLITE_NOTFOUND; },
        .xSectorSize = [](sqlite3_file*) { return 512; },
        .xDeviceCharacteristics = [](sqlite3_file*) { return 0; },
        .xShmMap = nullptr,  // version 1 has none
        .xShmLock = nullptr,
        .xShmBarrier = nullptr,
        .xShmUnmap = nullptr,
        .xFetch = nullptr,
        .xUnfetch = nullptr,
    };

    sqlite3_vfs vfs_{};
    std::map<std::string, File> files_;
    size_t changesLeft_ = SIZE_MAX;
    int failure_ = SQLITE_IOERR;
};

}  // namespace telvora::test
