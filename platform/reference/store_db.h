// The store's file: an SQLite database with one row a record.
//
//   user_version 1; table object(name TEXT PRIMARY KEY, record BLOB)
//
// An object of this class is one transaction: nothing of it is stored unless commit() returned true.
// SQLite's rollback journal takes care of processes that are killed, its locks of those at the same time.
#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <memory>
#include <span>

#include "cloud_owner.h"

class StoreDb {
public:
    enum class Mode { kRead, kWrite };
    enum class Opened { kReady, kEmpty, kFailed };

    /// Opens the file and begins. kRead never creates anything: kEmpty says that nothing is stored yet.
    /// kWrite makes folder, file (mode 0600) and table as needed, and waits for other writers.
    [[nodiscard]] Opened open(Mode mode);

    /// Copies a record; zeros when there is none.
    /// @return false when the file is damaged or the stored record has another length.
    [[nodiscard]] bool get(const char *name, std::span<unsigned char> record);
    /// Stores a record in place of the one before.
    [[nodiscard]] bool put(const char *name, std::span<const unsigned char> record);
    /// Removes a record; none to remove is no failure.
    [[nodiscard]] bool erase(const char *name);
    /// Ends the transaction. @return false: nothing of it is stored.
    [[nodiscard]] bool commit();
    /// Why the last of these calls failed, as an errno: EPERM for a file that is not root's or this user's
    /// alone, EBADMSG for one that is no store or is damaged, EBUSY where another process held it too long.
    /// 0: not known.
    [[nodiscard]] int fault() const;

private:
    using Statement = std::unique_ptr<sqlite3_stmt, Releaser<sqlite3_finalize>>;

    [[nodiscard]] bool run(const char *sql);
    [[nodiscard]] Statement prepare(const char *sql, const char *name);
    [[nodiscard]] int version();

    int fault_ = 0;                                         // of what is tried before SQLite is asked
    std::unique_ptr<sqlite3, Releaser<sqlite3_close>> db_;  // closing rolls back
};
