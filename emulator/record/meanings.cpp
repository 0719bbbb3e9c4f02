#include "meanings.h"

#include <algorithm>
#include <array>

namespace emulator {
namespace {

constexpr std::array kCodes{
    CodeMeaning{0, Place::kPrinted, "done; for check, download and update only that it ran", "any command",
                "the status file, for check, download and update"},
    CodeMeaning{1, Place::kPrinted, "getBindStatus: an account is stored; getLogicStatus: account mode",
                "reading the store, or asking the broker", "cloud_store get account"},
    CodeMeaning{-1, Place::kPrinted,
                "refused on the device: an argument is missing, does not fit or does not decrypt, there is "
                "no account, "
                "or the answer lacks what it must hold",
                "making the request, or reading its answer", "the console line before it"},
    CodeMeaning{-1000, Place::kPrinted,
                "no memory, or a broker's message with a wrong magic, type or a short body",
                "exchange with the broker", "the broker's frames: extender check broker"},
    CodeMeaning{-2000, Place::kPrinted, "a listening socket could not be made", "client library",
                "the socket's folder"},
    CodeMeaning{-2001, Place::kPrinted, "no connection to the broker, refused by its greeting, or not sent",
                "connecting to the broker", "does the broker run, is /tmp/cloud-brd there, is it full?"},
    CodeMeaning{-2002, Place::kPrinted, "nothing came for 3 seconds, or the broker closed",
                "waiting for the broker", "the broker's load and its end of the journal"},
    CodeMeaning{-3001, Place::kPrinted, "no answer of the cloud yet", "polling the broker",
                "the link: cloud_msg online"},
    CodeMeaning{-3002, Place::kPrinted, "no answer of the cloud in time", "polling the broker",
                "the link: cloud_msg online; the broker's own log"},
    CodeMeaning{-6000, Place::kPrinted, "the broker's answer is no JSON, or a key is missing",
                "reading the broker's answer", "docs/protocol.md; extender check broker"},
    CodeMeaning{-7004, Place::kPrinted, "an argument that is not allowed", "client library", "the caller"},
    CodeMeaning{11, Place::kStatusFile, "a check or download starts; a download resumes", "check, download",
                "nothing"},
    CodeMeaning{4, Place::kStatusFile, "the cloud is being asked", "check", "nothing"},
    CodeMeaning{5, Place::kStatusFile,
                "the answer was handled: something newer is stored, or there is nothing", "check",
                "cloud_store get upgrade-info"},
    CodeMeaning{1, Place::kStatusFile, "the image arrives", "download", "nothing"},
    CodeMeaning{2, Place::kStatusFile, "the image is there", "download", "nothing"},
    CodeMeaning{3, Place::kStatusFile, "the platform verifies and installs; then the device restarts",
                "update", "nothing"},
    CodeMeaning{20000, Place::kStatusFile, "the download failed", "download",
                "the console's curl line; the stored address; room in /tmp"},
    CodeMeaning{20001, Place::kStatusFile, "the platform refused the image, or could not install it",
                "update", "the image: cloud_image info; the console's error number"},
    CodeMeaning{20003, Place::kStatusFile, "the check failed", "check",
                "cloud_msg online; the answer's error_code"},
    CodeMeaning{20004, Place::kStatusFile, "no memory", "check, download, update",
                "free memory, room in /tmp"},
    CodeMeaning{1, Place::kImage, "it cannot be read: no file, no plain file, or a read error", "update",
                "/tmp/httpUploadFile.bin"},
    CodeMeaning{2, Place::kImage, "no magic, or shorter than the header", "update", "what the server sent"},
    CodeMeaning{3, Place::kImage, "another format version", "update", "the tool that made the image"},
    CodeMeaning{4, Place::kImage, "its length is not the header's", "update", "the download: fetch it again"},
    CodeMeaning{5, Place::kImage, "no proper version text", "update", "the tool that made the image"},
    CodeMeaning{6, Place::kImage, "its checksum differs", "update", "the download: fetch it again"},
    CodeMeaning{7, Place::kImage, "good, but the flash cannot be written", "update",
                "room and rights of the flash"},
    CodeMeaning{-20101, Place::kCloud, "not a request", "any request", "the request's JSON"},
    CodeMeaning{-20102, Place::kCloud, "a parameter is missing", "any request", "/tmp/device.info"},
    CodeMeaning{-20103, Place::kCloud, "unknown method", "passthrough, online", "the method's name"},
    CodeMeaning{-20201, Place::kCloud, "unknown account", "bind, login", "the account's name"},
    CodeMeaning{-20202, Place::kCloud, "wrong password", "bind, login",
                "the password; the key that encrypted it"},
    CodeMeaning{-20301, Place::kCloud, "unknown device", "any request", "/tmp/device.info"},
    CodeMeaning{-20302, Place::kCloud, "bound to another account", "bind", "unbind it there"},
    CodeMeaning{-20303, Place::kCloud, "not bound", "unbind, alias, rmuser, getDevToken", "bind it first"},
    CodeMeaning{-20304, Place::kCloud, "not the owner, or no user", "unbind, login, rmuser",
                "the account's name"},
    CodeMeaning{-20305, Place::kCloud, "no such user", "rmuser", "the user's name"},
};

constexpr std::array kLines{
    LineMeaning{"Decrypt password failed.", "the password is no cipher text of this device's key",
                "bind, login", "was it encrypted with the key of this device (cloud_rsa public)?"},
    LineMeaning{"Invaild Params.", "an argument is missing or empty", "any account command", "the caller"},
    LineMeaning{"Format request message failed.",
                "an argument does not fit or does not decode; nothing was sent", "any account command",
                "the argument's Base64 and length"},
    LineMeaning{"Fail to send request sync, error=%d", "the broker could not be asked, or did not answer",
                "any account command", "extender explain of that number"},
    LineMeaning{"Errcode is NULL", "the cloud's answer has no error_code", "reading the cloud's answer",
                "the answer in the journal"},
    LineMeaning{"Token is NULL", "the answer has no deviceToken", "getDevToken", "the answer in the journal"},
    LineMeaning{"Expiry of token is too long.", "expiresIn does not fit the script's command line",
                "getDevToken", "the answer in the journal"},
    LineMeaning{"Get role failed.", "the login's answer has no role", "login", "the answer in the journal"},
    LineMeaning{"failed to bind: %s", "the program's own socket could not be made", "kickoff",
                "/tmp/cloud_msg_unix"},
    LineMeaning{"Send request failed. %s", "the management daemon does not run or has no room", "kickoff",
                "extender check kmpd"},
    LineMeaning{"Remove user from %s failed.", "the file could not be rewritten", "unbind",
                "room and owner of /tmp/passwd"},
    LineMeaning{"ssl path is OK.", "the cloud answered: the link is good", "online", "nothing"},
    LineMeaning{"link status is ok, while ssl path is bad, try to reconnect.", "linked, but no answer came",
                "online", "the cloud, the firewall"},
    LineMeaning{"client havn't been connected to server, now try to connect.", "the broker has no link",
                "online", "the network"},
    LineMeaning{"%s request timeout %d times successively, recreate ssl path.",
                "requests timed out in a row: the broker is told to rebuild the link", "requests",
                "the network"},
    LineMeaning{"Cloud Server response error message, error code is %s!", "the cloud refused", "requests",
                "extender explain of that number"},
    LineMeaning{"open %s failed.", "a file cannot be opened: absent, a link, somebody else's, or no room",
                "download", "that file: ls -l"},
    LineMeaning{"write %s failed.", "the RAM disk is full", "download", "room in /tmp"},
    LineMeaning{"curl_easy_perform() failed: %d %s", "a transfer ended early; the number is libcurl's",
                "download", "the server; it goes on by itself unless five fail in a row"},
    LineMeaning{"CURLE_OPERATION_TIMEOUTED, continue to download.", "the server stalled; it is asked again",
                "download", "nothing, unless it repeats"},
    LineMeaning{"different up-image, remove old one.", "the partial image was of another address", "download",
                "nothing"},
    LineMeaning{"getDownloadFileLen failed!", "the server did not answer to HEAD", "download",
                "the address, the server"},
    LineMeaning{"get resource invalid!", "the server answered with an error", "download", "the address"},
    LineMeaning{"Not a valid URL!", "the stored address is none", "download", "cloud_store get upgrade-info"},
    LineMeaning{"firmware url is NULL.", "nothing was stored by a check", "download",
                "cloud_msg check first"},
    LineMeaning{"Get firmware upgrade info fail.", "the store cannot be read", "download",
                "extender check platform; the store's file"},
    LineMeaning{"open %s failed: %s", "libcurl cannot be loaded", "download",
                "is it installed under that name?"},
    LineMeaning{"check firmware failed, error = %d",
                "the platform refused the image; the number is the platform's", "update",
                "cloud_image info; extender explain of that number"},
    LineMeaning{"wrpGetTransID failed, ret = %d", "the store gave no transaction", "update",
                "another update that runs"},
    LineMeaning{"Verify image failed!", "the image was not installed", "update", "the line before"},
    LineMeaning{"Download/upgrade image lock, please wait.", "another download or update runs, or was killed",
                "download, update", "/tmp/cloud_dl_img.lock, /tmp/cloud_up_img.lock"},
    LineMeaning{"upgrade info is incorrect.", "the entry of the firmware list lacks members", "check",
                "the answer in the journal"},
    LineMeaning{"FwList is empty! Current firmware is up to date!", "there is nothing newer", "check",
                "nothing"},
    LineMeaning{"soft version format is wrong!", "/tmp/softinfo holds no version", "check", "/tmp/softinfo"},
    LineMeaning{"open %s file failed", "the version's file or the identity's is not there",
                "check; any request", "who writes /tmp/softinfo and /tmp/device.info at start"},
    LineMeaning{"wrpOpGrpDo fail.", "the configuration store refused or failed",
                "reading or writing the store", "extender check platform; the store's file"},
    LineMeaning{"Error: open %s for write failed", "the status file cannot be replaced",
                "check, download, update", "/tmp/cloud.info"},
    LineMeaning{"Error: open %s for read failed", "the web interface has not made the status file",
                "check, download, update", "/tmp/cloud.info"},
    LineMeaning{"Error: parse json failed", "the status file holds no JSON object", "check, download, update",
                "/tmp/cloud.info"},
    LineMeaning{"client receive type not ACCEPT", "the broker's first message was no greeting",
                "connecting to the broker", "extender check broker"},
    LineMeaning{"daemon accept not success, %s:%d", "the broker's greeting refuses",
                "connecting to the broker", "the broker's log"},
    LineMeaning{"daemon accept full", "the broker has no free place", "connecting to the broker",
                "who holds its connections"},
    LineMeaning{"ipc recv error", "the broker closed or did not answer for 3 seconds",
                "exchange with the broker", "the broker's log"},
    LineMeaning{"ipc send error", "the broker is gone", "exchange with the broker", "does it run?"},
};

constexpr std::array kModules{
    ModuleMeaning{"cloud_accountChannel", "kickoff: the datagrams to the management daemon"},
    ModuleMeaning{"cloud_accountRequest", "account commands: making the request"},
    ModuleMeaning{"cloud_accountResult", "account commands: reading the answer"},
    ModuleMeaning{"cloud_accountState", "account commands: what changes on the device"},
    ModuleMeaning{"cloud_account", "account commands"},
    ModuleMeaning{"cloud_checkFwVersion", "check: the firmware list of the cloud"},
    ModuleMeaning{"cloud_fwVersion", "check: comparing versions"},
    ModuleMeaning{"cloud_http", "download: the transfer"},
    ModuleMeaning{"cloud_curl", "download: loading libcurl"},
    ModuleMeaning{"cloud_download", "download"},
    ModuleMeaning{"cloud_localMsg", "check, download and update: the command itself"},
    ModuleMeaning{"cloud_api_wrap", "requests: the road through the broker, the link test"},
    ModuleMeaning{"cloud_requestTimeoutHandler", "requests: counting time-outs"},
    ModuleMeaning{"cloud_notifyEventToCloud", "the notice that the connection closes"},
    ModuleMeaning{"cloud_cloudErrorHandler", "requests: an error of the cloud"},
    ModuleMeaning{"cloud_userConfig", "reading or writing the configuration store"},
    ModuleMeaning{"cloud_exchangeConfig", "the firmware status file"},
    ModuleMeaning{"cloud_jsonRpc", "reading JSON of the cloud or of a file"},
    ModuleMeaning{"cloud_util", "texts and files"},
    ModuleMeaning{"cloud_accept", "connecting to the broker"},
    ModuleMeaning{"cloud_interface", "exchange with the broker"},
    ModuleMeaning{"cloud_ipc", "exchange with the broker"},
};

constexpr PrintedLine kPrinted[] = {
#include "printed_lines.inc"
};

}  // namespace

std::span<const CodeMeaning> code_meanings() {
    return kCodes;
}

std::span<const LineMeaning> line_meanings() {
    return kLines;
}

std::span<const ModuleMeaning> module_meanings() {
    return kModules;
}

std::span<const PrintedLine> printed_lines() {
    return kPrinted;
}

std::string_view step_of(std::string_view source) {
    for (const ModuleMeaning &row : kModules) {
        if (source.starts_with(row.name)) {
            return row.step;
        }
    }
    return {};
}

std::string_view place_text(Place place) {
    switch (place) {
        case Place::kPrinted:
            return "printed";
        case Place::kStatusFile:
            return "`fw_status`";
        case Place::kImage:
            return "image error";
        case Place::kCloud:
            break;
    }
    return "cloud";
}

bool line_fits(std::string_view line, std::string_view text) {
    size_t at = 0;
    bool first = true;
    while (!text.empty()) {
        const size_t percent = text.find('%');
        const std::string_view fixed = text.substr(0, percent);
        const size_t found = fixed.empty() ? at : line.find(fixed, at);
        if (found == std::string_view::npos) {
            return false;
        }
        at = found + fixed.size();
        first = false;
        const size_t letter = text.find_first_of("diufgscpx", std::min(percent, text.size()));
        text = letter == std::string_view::npos ? "" : text.substr(letter + 1);
    }
    return !first;
}

}  // namespace emulator
