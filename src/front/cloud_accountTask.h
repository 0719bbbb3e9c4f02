// Which operation a command stands for.
#pragma once

/// Codes of the account commands, for cloud_accountTask.
enum AccountCode {
    kGetFwList = 3,
    kBind,
    kUnbind,
    kLogin,
    kAlias,
    kRemoveUser,
    kGetDevToken,
    kPassthrough,
    kOnline,
    kFactory,
    kTmpBind,
    kKickoff,
    kTmpUnbind,
    kGetLogicStatus,
    kSetLogicStatus,
    kGetBindStatus,
};
static_assert(kGetBindStatus == 18);

/// Runs one account command.
/// @param arg1, arg2  its arguments as they stand on the command line; null when not given.
/// @return the command's result; 0 for an unknown code.
[[nodiscard]] int cloud_accountTask(int code, char *arg1, char *arg2);
