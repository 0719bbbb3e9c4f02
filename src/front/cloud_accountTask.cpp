#include "cloud_accountTask.h"

#include "cloud_account.h"
#include "cloud_checkFwVersion.h"

int cloud_accountTask(int code, char *arg1, char *arg2) {
    switch (code) {
        case kGetFwList:
            return cloud_msg_getFwList();
        case kBind:
            return cloud_msg_bind_device(arg1, arg2);
        case kUnbind:
            return cloud_msg_unbind_device(arg1);
        case kLogin:
            return cloud_msg_account_login(arg1, arg2);
        case kAlias:
            return cloud_msg_update_alias(arg1);
        case kRemoveUser:
            return cloud_msg_remove_user(arg1, arg2);
        case kGetDevToken:
            return cloud_msg_get_devtoken();
        case kPassthrough:
            return cloud_msg_passthrough(arg1, arg2);
        case kOnline:
            return cloud_msg_check_online();
        case kFactory:
            return cloud_msg_factory();
        case kTmpBind:
            return cloud_msg_tmp_bind_device(arg1, arg2);
        case kKickoff:
            return cloud_msg_kickoff();
        case kTmpUnbind:
            return cloud_msg_tmp_unbind_device(arg1);
        case kGetLogicStatus:
            return cloud_msg_get_logic_status();
        case kSetLogicStatus:
            return cloud_msg_set_logic_status();
        case kGetBindStatus:
            return cloud_msg_check_bind_status();
        default:
            return 0;
    }
}
