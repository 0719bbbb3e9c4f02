#include "store_db.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "state_file.h"

namespace {

constexpr int kBusyWaitMs = 5000;  // a writer holds the file for milliseconds
constexpr int kFormatVersion = 1;
// What was removed is overwritten: it held credentials.
constexpr char kBeginWrite[] = "PRAGMA secure_delete=ON; BEGIN IMMEDIATE";
constexpr char kCreate[] =
    "CREATE TABLE object(name TEXT PRIMARY KEY, record BLOB NOT NULL) WITHOUT ROWID;"
    "PRAGMA user_version=1";

// SQLite would make the file readable to everyone. What another process has just made is as good, and stays
// closed: closing a second descriptor of a database that is open drops its locks.
[[nodiscard]] bool _make_file(const PathText &path) {
    if (!state_makeFolderOf(path)) {
        return false;
    }
    const UniqueFd fd(open(path.data(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    return fd.ok() || errno == EEXIST;
}

}  // namespace

StoreDb::Opened StoreDb::open(Mode mode) {
    PathText path;
    if (!state_storeFile(&path)) {
        return Opened::kFailed;
    }
    struct stat found {};
    if (lstat(path.data(), &found) != 0) {
        fault_ = errno;
        if (mode == Mode::kRead) {
            return fault_ == ENOENT ? Opened::kEmpty : Opened::kFailed;
        }
        if (!_make_file(path) || lstat(path.data(), &found) != 0) {
            fault_ = errno;
            return Opened::kFailed;
        }
    }
    fault_ = EPERM;
    // By its name, for the same reason: SQLite alone opens the file.
    if (!state_isOwnFile(found)) {
        return Opened::kFailed;
    }
    fault_ = 0;
    // Readers ask for writing too: a journal that a killed writer left has to be rolled back first.
    sqlite3 *raw = nullptr;
    const int result =
        sqlite3_open_v2(path.data(), &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    db_.reset(raw);
    if (result != SQLITE_OK || sqlite3_busy_timeout(raw, kBusyWaitMs) != SQLITE_OK ||
        !run(mode == Mode::kRead ? "BEGIN" : kBeginWrite)) {
        return Opened::kFailed;
    }
    switch (version()) {
        case kFormatVersion:
            return Opened::kReady;
        case 0:  // a file without content: its first writer was killed, or is at it
            if (mode == Mode::kRead) {
                return Opened::kEmpty;
            }
            return run(kCreate) ? Opened::kReady : Opened::kFailed;
        default:
            fault_ = EBADMSG;
            return Opened::kFailed;
    }
}

bool StoreDb::get(const char *name, std::span<unsigned char> record) {
    const Statement row = prepare("SELECT record FROM object WHERE name=?1", name);
    if (row == nullptr) {
        return false;
    }
    const int result = sqlite3_step(row.get());
    if (result == SQLITE_DONE) {
        std::fill(record.begin(), record.end(), static_cast<unsigned char>(0));
        return true;
    }
    if (result != SQLITE_ROW || sqlite3_column_type(row.get(), 0) != SQLITE_BLOB ||
        static_cast<size_t>(sqlite3_column_bytes(row.get(), 0)) != record.size()) {
        return false;
    }
    const auto *const bytes = static_cast<const unsigned char *>(sqlite3_column_blob(row.get(), 0));
    std::copy_n(bytes, record.size(), record.begin());
    return true;
}

bool StoreDb::put(const char *name, std::span<const unsigned char> record) {
    const Statement row = prepare("INSERT OR REPLACE INTO object VALUES(?1,?2)", name);
    return row != nullptr &&
           sqlite3_bind_blob(row.get(), 2, record.data(), static_cast<int>(record.size()), SQLITE_STATIC) ==
               SQLITE_OK &&
           sqlite3_step(row.get()) == SQLITE_DONE;
}

bool StoreDb::erase(const char *name) {
    const Statement row = prepare("DELETE FROM object WHERE name=?1", name);
    return row != nullptr && sqlite3_step(row.get()) == SQLITE_DONE;
}

bool StoreDb::commit() {
    return run("COMMIT");
}

bool StoreDb::run(const char *sql) {
    return sqlite3_exec(db_.get(), sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

int StoreDb::fault() const {
    if (fault_ != 0 || db_ == nullptr) {
        return fault_;
    }
    switch (sqlite3_errcode(db_.get())) {
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return EBUSY;
        case SQLITE_FULL:
            return ENOSPC;
        case SQLITE_READONLY:
            return EACCES;
        case SQLITE_OK:  // SQLite read what it was asked for: a record of another length
        case SQLITE_ROW:
        case SQLITE_DONE:
        case SQLITE_ERROR:  // no such table
        case SQLITE_CORRUPT:
        case SQLITE_NOTADB:
            return EBADMSG;
        default:
            return sqlite3_system_errno(db_.get());
    }
}

StoreDb::Statement StoreDb::prepare(const char *sql, const char *name) {
    sqlite3_stmt *raw = nullptr;
    if (sqlite3_prepare_v2(db_.get(), sql, -1, &raw, nullptr) != SQLITE_OK) {
        return nullptr;
    }
    Statement statement(raw);
    if (name != nullptr && sqlite3_bind_text(raw, 1, name, -1, SQLITE_STATIC) != SQLITE_OK) {
        return nullptr;
    }
    return statement;
}

int StoreDb::version() {
    const Statement row = prepare("PRAGMA user_version", nullptr);
    if (row == nullptr || sqlite3_step(row.get()) != SQLITE_ROW) {
        return -1;
    }
    return sqlite3_column_int(row.get(), 0);
}
