// Contents: 1 configuration file and parameter block  2 FIFO transport and catalogue  3 reports  4 messages
//           5 start and end
// In:   wlcTlscFifoHandler -> readFromTlscFifo -> tlscWlcMsgRcv... -> tlsc_platform (start, stop, pipe), reports
// Out:  tlscWlcSetTunState, tlscWlcPost...UpdateMsg -> tlscWriteToWLC -> the controller's FIFO
// File: tlscWlcMsgRcvSecTunStart -> wlcSecTunReadAllConf -> wlcSecTunProcessConf -> parameters -> tlsc_set_config_all

#include "tlsc_wlc.h"

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include <arpa/inet.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tlsc_debug.h"
#include "tlsc_utils.h"

#include "tlsc_main.h"      // tlsc_init
#include "tlsc_platform.h"  // start and stop of the client, command-pipe wrappers, statistics

// ==== 1 Configuration file and parameter block ===================================================================
// The controller leaves the settings in a text file of "key;value;flag" lines. Every pass over the file writes the
// entries that it keeps to a temporary file and renames that one over the file.

namespace {

constexpr char conf_path[] = "/storage/application/wlc/wlc-sec-tun.conf";
constexpr char temp_path[] = "/storage/application/wlc/wlc-sec-tun-temp.conf";

constexpr size_t   conf_line_size  = 512;  // fgets: 511 characters of a line at a time
constexpr size_t   conf_field_size = 64;   // key and flag: 63 characters
constexpr unsigned settle_seconds  = 1;    // before the rename: the controller writes the file too

constexpr char secret_key[]  = "psk_key";
constexpr char masked_text[] = "***";

// The settings that the next client start applies. Main thread.
wlc_sec_tun_params params;

using param_text = char (wlc_sec_tun_params::*)[param_text_size];

enum conf_key_id : int {
    conf_key_invalid     = 0,
    conf_key_server_port = 2,
};

// The keys in the order of the search; the port is the one that is no text.
constexpr struct {
    const char *name;
    int         id;
    param_text  field;
} conf_keys[] = {
    {"server_ip_address", 1, &wlc_sec_tun_params::server_ip_address},
    {"server_port", conf_key_server_port, nullptr},
    {"inner_ip", 4, &wlc_sec_tun_params::inner_ip},
    {"management_ip", 3, &wlc_sec_tun_params::management_ip},
    {"cipher_algo", 6, &wlc_sec_tun_params::cipher_algo},
    {"tun_interface_name", 5, &wlc_sec_tun_params::tun_interface_name},
    {"psk_identity", 7, &wlc_sec_tun_params::psk_identity},
    {secret_key, 8, &wlc_sec_tun_params::psk_key},
    {"log_level", 9, &wlc_sec_tun_params::log_level},
    {"log_dest", 10, &wlc_sec_tun_params::log_dest},
    {"device_id", 11, &wlc_sec_tun_params::device_id},
    {"serial_num", 12, &wlc_sec_tun_params::serial_num},
    {"system_name", 13, &wlc_sec_tun_params::system_name},
};

// The value as it may be printed beside its key.
const char *printable_value(const char *key, const char *value) {
    return strcmp(key, secret_key) == 0 ? masked_text : value;
}

// The same beside the beginning of a key: one that selects the secret key's entry hides the value.
const char *printable_value_of_prefix(const char *key, const char *value) {
    return strncmp(secret_key, key, strlen(key)) == 0 ? masked_text : value;
}

// ---- one pass -------------------------------------------------------------------------------------------------------

struct conf_entry {
    char key[conf_field_size];
    char value[conf_line_size];
    int  flag;  // 1 written by an update and not yet consumed, 0 consumed
};

struct conf_pass;

// What one operation makes of the file; the pass is the same for all of them.
struct conf_policy {
    const char *operation;                                   // in whose name the pass logs
    const char *mode;                                        // of fopen
    bool        shows_lines;                                 // each line is logged
    void (*keep)(conf_pass *pass, const conf_entry &entry);  // writes an entry back
    void (*finish)(conf_pass *pass);                         // behind the last line; may be null
};

struct conf_pass {
    const conf_policy *policy;
    const char        *key;  // that the operation was given, with the value to set or the buffer to fill
    const char        *value;
    char              *value_out;
    bool               updated;  // an entry has taken the value

    FILE *conf;
    FILE *temp;
    char  buffers[2][conf_line_size];  // of the two files: they hold the secret as well
    off_t temp_size;             // of the temporary file when the pass began: an earlier pass may have left it behind
    int   error;                 // the first errno of the pass, 0 while all went well
    char  line[conf_line_size];  // the current line, its newline included
    char  tail[sizeof(secret_key) - 1];  // the last piece's end: it may be the beginning of the secret key's name
    bool  line_is_cut;                   // the line goes on in the next piece
    bool  line_is_secret;                // the line names the secret key, or goes on from a piece that does
    bool  line_is_secret_rest;           // the latter, or it goes on and names the secret key elsewhere than as its key
};

void note_error(conf_pass *pass) {
    if (pass->error == 0) pass->error = errno;
}

// An entry must not be appended to a line that a crash cut short.
void end_cut_line(conf_pass *pass) {
    char last = '\n';
    if (pass->temp_size > 0 && pread(fileno(pass->temp), &last, 1, pass->temp_size - 1) == 1 && last != '\n')
        if (fputc('\n', pass->temp) == EOF) note_error(pass);
}

// Opens the temporary file for appending, with the owner and the mode of the file that it will replace: it holds the
// same secret. On failure the configuration file is closed.
bool open_temp(conf_pass *pass) {
    struct stat conf_stat {};
    struct stat temp_stat {};

    int fd = -1;
    if (fstat(fileno(pass->conf), &conf_stat) == 0)
        fd = open(temp_path, O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, conf_stat.st_mode & 0777);
    if (fd != -1) {
        (void)!fchown(fd, conf_stat.st_uid, conf_stat.st_gid);  // as far as the file system keeps owners
        (void)fchmod(fd, conf_stat.st_mode & 0777);
        (void)fstat(fd, &temp_stat);
        pass->temp = fdopen(fd, "a+");
    }
    if (!pass->temp) {
        if (fd != -1) close(fd);
        (void)fclose(pass->conf);
        return false;
    }

    (void)setvbuf(pass->temp, pass->buffers[1], _IOFBF, sizeof(pass->buffers[1]));
    pass->temp_size = temp_stat.st_size;
    end_cut_line(pass);
    return true;
}

// Where the value begins in a line whose key is the secret one, in a comment too; null for any other line.
const char *find_secret_value(const char *line) {
    const char *key = line + strspn(line, line[0] == '#' ? "# \t;" : ";");
    if (strncmp(key, secret_key, strlen(secret_key)) != 0 || key[strlen(secret_key)] != ';') return nullptr;
    return key + strlen(secret_key) + 1;
}

// True when the secret key's name lies across the seam of the last piece and this one.
bool is_named_across_seam(const conf_pass *pass) {
    char joined[sizeof(pass->tail) + sizeof(pass->line)];
    (void)snprintf(joined, sizeof(joined), "%s%s", pass->tail, pass->line);
    const char *name = strstr(joined, secret_key);
    return name && name < joined + strlen(pass->tail);
}

// True when the secret key's name stands in this piece, but not as the key.
bool is_named_inside(const conf_pass *pass) { return strstr(pass->line, secret_key) && !find_secret_value(pass->line); }

void keep_tail(conf_pass *pass) {
    const size_t length = strlen(pass->line);
    const size_t kept   = length < sizeof(pass->tail) - 1 ? length : sizeof(pass->tail) - 1;
    tlsc_copy_text(pass->tail, sizeof(pass->tail), pass->line_is_cut ? pass->line + length - kept : "");
}

// Reads the next line, or the next piece of a long one. False at the end of the file.
bool read_line(conf_pass *pass) {
    const bool goes_on = pass->line_is_cut;

    if (!fgets(pass->line, sizeof(pass->line), pass->conf)) {
        if (ferror(pass->conf)) note_error(pass);
        return false;
    }
    pass->line_is_secret_rest = goes_on &&
                                (pass->line_is_secret || is_named_across_seam(pass) || is_named_inside(pass));
    pass->line_is_secret = pass->line_is_secret_rest || strstr(pass->line, secret_key);
    pass->line_is_cut    = strchr(pass->line, '\n') == nullptr;
    keep_tail(pass);
    return true;
}

// The flag, if the line ends with one: what stands before it belongs to the value.
const char *find_flag(const char *value) {
    const char *last = strrchr(value, ';');
    if (!last) return "";
    const size_t digits = strspn(last + 1, "0123456789");
    return digits != 0 && (last[1 + digits] == '\n' || last[1 + digits] == '\0') ? last : "";
}

// The current line as it may be printed: the secret shows as "***", the fields around it as they are. Of a long line
// nothing shows behind the secret key's name. Valid until the next call.
const char *printable_line(const conf_pass *pass) {
    static char shown[conf_line_size + sizeof(masked_text)];

    if (pass->line_is_secret_rest) return masked_text;
    const bool  goes_on = pass->line_is_secret && pass->line_is_cut;
    const char *name    = goes_on ? strstr(pass->line, secret_key) : nullptr;
    const char *value   = name ? name + strlen(secret_key) : find_secret_value(pass->line);
    if (!value) return pass->line;
    (void)snprintf(shown, sizeof(shown), "%.*s%s%s%s", static_cast<int>(value - pass->line), pass->line,
                   name ? ";" : "", masked_text, name ? "" : find_flag(value));
    return shown;
}

// What a skipped line is reported with, by the result of split_line.
constexpr const char *skip_texts[] = {nullptr, "continue 1", "continue 2", "continue 3", "continue 4"};

// Takes a line apart; the line is cut up by it. Returns 0, or why the line is no entry: 1 blank or comment, 2 without
// a key, 3 without a value, 4 without a flag.
int split_line(char *line, conf_entry *entry) {
    if (line[0] == '\n' || line[0] == '#') return 1;

    char       *rest = nullptr;
    const char *key  = strtok_r(line, ";", &rest);
    if (!key) return 2;
    const char *value = strtok_r(nullptr, ";", &rest);
    if (!value) return 3;
    const char *flag = strtok_r(nullptr, ";", &rest);
    if (!flag) return 4;

    char flag_text[conf_field_size];
    tlsc_copy_text(entry->key, sizeof(entry->key), key);
    tlsc_copy_text(entry->value, sizeof(entry->value), value);
    tlsc_copy_text(flag_text, sizeof(flag_text), flag);
    entry->flag = tlsc_decimal(flag_text);
    return 0;
}

// The same for the current line. What is left of a line with the secret key is never an entry: a part of the secret
// would become a name, which is printed and kept.
int split_current_line(conf_pass *pass, conf_entry *entry) {
    const int skipped = split_line(pass->line, entry);
    return skipped == 0 && pass->line_is_secret_rest ? 4 : skipped;
}

void write_entry(conf_pass *pass, const char *key, const char *value, int flag) {
    if (fprintf(pass->temp, "%s;%s;%d\n", key, value, flag) < 0) note_error(pass);
}

// Closes both files, waits, and puts the temporary file in the configuration file's place. False with errno when that
// failed. The configuration file is only replaced by a complete one: after a failed read or write it stays, and the
// temporary file is cut back to what it was, so that no later pass carries half of this one along.
bool finish_pass(conf_pass *pass) {
    if (fflush(pass->temp) != 0 || fsync(fileno(pass->temp)) != 0) note_error(pass);
    if (fclose(pass->temp) != 0) note_error(pass);
    (void)fclose(pass->conf);  // was only read
    if (pass->error != 0) (void)!truncate(temp_path, pass->temp_size);

    (void)sleep(settle_seconds);
    if (pass->error != 0) {
        errno = pass->error;
        return false;
    }
    return rename(temp_path, conf_path) == 0;
}

// Opens both files. False, with a line, when one of them does not open.
bool open_files(conf_pass *pass) {
    const tlsc_work_of tlsc_log_function{pass->policy->operation};

    pass->conf = fopen(conf_path, pass->policy->mode);
    if (!pass->conf) {
        WLC_IPC_ERROR("%s - File open failed, returning, file:%s", pass->policy->operation, conf_path);
        return false;
    }
    (void)setvbuf(pass->conf, pass->buffers[0], _IOFBF, sizeof(pass->buffers[0]));
    if (!open_temp(pass)) {
        WLC_IPC_ERROR("%s - Temp File open failed to read, returning, filename:%s", pass->policy->operation, temp_path);
        return false;
    }
    return true;
}

// Takes the current line: keeps its entry, or says why it has none.
void take_line(conf_pass *pass) {
    const tlsc_work_of tlsc_log_function{pass->policy->operation};

    if (pass->policy->shows_lines) WLC_IPC_EVENT("Config line read:%s", printable_line(pass));
    conf_entry entry;
    const int  skipped = split_current_line(pass, &entry);
    if (skipped) WLC_IPC_EVENT("%s", skip_texts[skipped]);
    else pass->policy->keep(pass, entry);
    explicit_bzero(&entry, sizeof(entry));
}

// The whole pass. Returns 1, also when the file could not be replaced (logged), or 0 when one could not be opened.
int32_t run_pass(conf_pass *pass) {
    const tlsc_work_of tlsc_log_function{pass->policy->operation};

    if (!open_files(pass)) return 0;
    while (read_line(pass)) take_line(pass);
    if (pass->policy->finish) pass->policy->finish(pass);
    if (!finish_pass(pass)) {
        const char *error = strerror(errno);
        WLC_IPC_ERROR("%s() - Error [%s] while Renaming file %s to %s", pass->policy->operation, error, temp_path,
                      conf_path);
    }
    explicit_bzero(pass, sizeof(*pass));
    return 1;
}

// ---- what the operations make of it ---------------------------------------------------------------------------------

// Every entry goes to the parameter block and is consumed by it.
void consume_entry(conf_pass *pass, const conf_entry &entry) {
    (void)wlcSecTunProcessConf(entry.key, entry.value);
    write_entry(pass, entry.key, entry.value, 0);
}

// By contract: the given key selects every entry that begins with it.
bool is_selected(const conf_pass *pass, const conf_entry &entry) {
    return strncmp(entry.key, pass->key, strlen(pass->key)) == 0;
}

// By contract: the given key becomes the key of the entry.
void update_entry(conf_pass *pass, const conf_entry &entry) {
    constexpr tlsc_work_of tlsc_log_function{"wlcSecTunUpdateConf"};

    if (!is_selected(pass, entry)) return write_entry(pass, entry.key, entry.value, entry.flag);
    write_entry(pass, pass->key, pass->value, 1);
    pass->updated = true;
    WLC_IPC_EVENT("%s() - entry updated for key:%s, data:%s", pass->policy->operation, pass->key,
                  printable_value_of_prefix(pass->key, pass->value));
}

void add_missing_entry(conf_pass *pass) {
    constexpr tlsc_work_of tlsc_log_function{"wlcSecTunUpdateConf"};

    if (pass->updated) return;
    WLC_IPC_EVENT("%s() - new entry added for key:%s, data:%s", pass->policy->operation, pass->key,
                  printable_value_of_prefix(pass->key, pass->value));
    write_entry(pass, pass->key, pass->value, 1);
}

// Of several entries the last one's value stays in the buffer.
void copy_entry(conf_pass *pass, const conf_entry &entry) {
    const bool selected = is_selected(pass, entry);
    if (selected) tlsc_copy_text(pass->value_out, conf_line_size, entry.value);
    write_entry(pass, entry.key, entry.value, selected ? 0 : entry.flag);
}

constexpr conf_policy read_all_policy{"wlcSecTunReadAllConf", "re", false, consume_entry, nullptr};
constexpr conf_policy update_policy{"wlcSecTunUpdateConf", "r+e", true, update_entry, add_missing_entry};
constexpr conf_policy read_one_policy{"wlcSecTunReadConf", "r+e", true, copy_entry, nullptr};

}  // namespace

// ---- the operations on the file -------------------------------------------------------------------------------------

int32_t wlcSecTunProcessConf(const char *key, const char *value) {
    if (!key || !value) {
        WLC_IPC_ERROR("%s() - Input parm NULL", __func__);
        return 0;
    }

    int        id    = conf_key_invalid;
    param_text field = nullptr;
    for (const auto &known : conf_keys)
        if (strcmp(known.name, key) == 0) {
            id    = known.id;
            field = known.field;
            break;
        }
    WLC_IPC_EVENT("%s() - On TLS Client received key value pair Key:%s,value:%s", __func__, key,
                  printable_value(key, value));

    if (id == conf_key_invalid) WLC_IPC_EVENT("Got invalid keystr:%s value:%s", key, printable_value(key, value));
    else if (field) tlsc_copy_text(params.*field, param_text_size, value);
    else if (id == conf_key_server_port) params.server_port = tlsc_decimal(value);
    else WLC_IPC_EVENT("Unknown, key value not processed keystr:%s value:%s", key, printable_value(key, value));

    (void)fflush(stdout);
    return 1;
}

int32_t wlcSecTunReadAllConf() {
    conf_pass pass{};
    pass.policy = &read_all_policy;

    WLC_IPC_EVENT("%s - TLS Client process, reading all the configuration", __func__);
    return run_pass(&pass);
}

int32_t wlcSecTunUpdateConf(const char *key, const char *value) {
    if (!key || !value) {
        WLC_IPC_ERROR("%s() - Input parm NULL", __func__);
        return 0;
    }

    conf_pass pass{};
    pass.policy = &update_policy;
    pass.key    = key;
    pass.value  = value;
    WLC_IPC_EVENT("%s() - Updating the Secure tunnel conf file, for the key:%s, data:%s", __func__, key,
                  printable_value_of_prefix(key, value));
    return run_pass(&pass);
}

int32_t wlcSecTunReadConf(const char *key, char *value_out) {
    if (!key || !value_out) {
        WLC_IPC_ERROR("%s() - Input parm NULL", __func__);
        return 0;
    }

    conf_pass pass{};
    pass.policy    = &read_one_policy;
    pass.key       = key;
    pass.value_out = value_out;
    // By contract: a read announces itself with the text of the update; there is no data yet that it could name.
    WLC_IPC_EVENT("%s() - Updating the Secure tunnel conf file, for the key:%s, data:%s", __func__, key, "");
    return run_pass(&pass);
}

// ---- the parameter block --------------------------------------------------------------------------------------------

int32_t tlscWlcClearCfgParams() {
    WLC_IPC_EVENT("%s - clearing all config params", __func__);

    // By contract: serial number and system name outlive a file that lacks them.
    wlc_sec_tun_params cleared{};
    tlsc_copy_text(cleared.serial_num, sizeof(cleared.serial_num), params.serial_num);
    tlsc_copy_text(cleared.system_name, sizeof(cleared.system_name), params.system_name);
    params = cleared;
    return 1;
}

const char *tlscWlcGetServerIpAddress() { return params.server_ip_address; }
int32_t     tlscWlcGetServerPort() { return params.server_port; }
const char *tlscWlcGetManagementIp() { return params.management_ip; }
const char *tlscWlcGetDeviceId() { return params.device_id; }
const char *tlscWlcGetSerialNum() { return params.serial_num; }
const char *tlscWlcGetSystemName() { return params.system_name; }
const char *tlscWlcGetTunInterfaceName() { return params.tun_interface_name; }
const char *tlscWlcGetCipherAlgo() { return params.cipher_algo; }
const char *tlscWlcGetPskIdentity() { return params.psk_identity; }
const char *tlscWlcGetPskKey() { return params.psk_key; }

// ==== 2 FIFO transport and catalogue =============================================================================
// The inbound FIFO is ours and stays open; the outbound one is the controller's and is opened for each message, so
// that a restarted controller needs no reconnection. A message is written and read whole.

namespace {

constexpr char inbound_path[]  = "/tmp/wlc-to-tlsc-fifo";
constexpr char outbound_path[] = "/tmp/tlsc-to-wlc-fifo";

constexpr mode_t inbound_mode = 0620;  // owner reads and writes, group writes
static_assert(inbound_mode == 400);

// The inbound FIFO. Main thread.
int  inbound_fd = -1;
bool inbound_is_wanted;  // from the first opening to the clean-up
bool inbound_is_shared;  // another process had it open and locked before this one

// The last message read, with one NUL more, so that a text in it always ends. Main thread.
constexpr size_t payload_off = offsetof(tlsc_wlc_msg, payload);
alignas(tlsc_wlc_msg) char received[wlc_msg_size + 1];

// Kept for the debugger; no message reports them.
std::atomic<uint32_t> messages_received{0};
std::atomic<uint32_t> messages_sent{0};
std::atomic<uint32_t> send_failures{0};

constexpr struct {
    uint32_t    id;
    const char *name;
} catalogue[] = {
    {WLC_SEC_TUN_MSG_HELLO, "WLC_SEC_TUN_MSG_HELLO"},
    {WLC_SEC_TUN_MSG_BOOTUP, "WLC_SEC_TUN_MSG_BOOTUP"},
    {WLC_SEC_TUN_MSG_ENABLE, "WLC_SEC_TUN_MSG_ENABLE"},
    {WLC_SEC_TUN_MSG_DISABLE, "WLC_SEC_TUN_MSG_DISABLE"},
    {WLC_SEC_TUN_MSG_TUN_RESTART, "WLC_SEC_TUN_MSG_TUN_RESTART"},
    {WLC_SEC_TUN_MSG_CONFIG_ERR, "WLC_SEC_TUN_MSG_CONFIG_ERR"},
    {WLC_SEC_TUN_MSG_CONFIG_UPDATE, "WLC_SEC_TUN_MSG_CONFIG_UPDATE"},
    {WLC_SEC_TUN_MSG_TLSC_TUN_START, "WLC_SEC_TUN_MSG_TLSC_TUN_START"},
    {WLC_SEC_TUN_MSG_TLSC_TUN_STOP, "WLC_SEC_TUN_MSG_TLSC_TUN_STOP"},
    {WLC_SEC_TUN_MSG_TLSC_TUN_RESTART, "WLC_SEC_TUN_MSG_TLSC_TUN_RESTART"},
    {WLC_SEC_TUN_MSG_TLSC_TUN_IN_PROG, "WLC_SEC_TUN_MSG_TLSC_TUN_IN_PROG"},
    {WLC_SEC_TUN_MSG_TLSC_TUN_UP, "WLC_SEC_TUN_MSG_TLSC_TUN_UP"},
    {WLC_SEC_TUN_MSG_TLSC_TUN_DOWN, "WLC_SEC_TUN_MSG_TLSC_TUN_DOWN"},
    {WLC_SEC_TUN_MSG_TLSC_TUN_STATS, "WLC_SEC_TUN_MSG_TLSC_TUN_STATS"},
    {WLC_SEC_TUN_MSG_TLSC_GW_FQDN_REQ, "WLC_SEC_TUN_MSG_TLSC_GW_FQDN_REQ"},
    {WLC_SEC_TUN_MSG_TLSC_GW_FQDN_RES, "WLC_SEC_TUN_MSG_TLSC_GW_FQDN_RES"},
    {WLC_SEC_TUN_MSG_TLSC_DEBUG_SET, "WLC_SEC_TUN_MSG_TLSC_DEBUG_SET"},
    {WLC_SEC_TUN_MSG_TLSC_INFO_UPDATE, "WLC_SEC_TUN_MSG_TLSC_INFO_UPDATE"},
    {WLC_SEC_TUN_MSG_EXIT, "WLC_SEC_TUN_MSG_EXIT"},
    // By contract: 32, 34 and 37 are handled and have no name.
    {WLC_SEC_TUN_MSG_TLSC_DBG_INFO_REQ, "WLC_SEC_TUN_MSG_TLSC_DBG_INFO_REQ"},
    {WLC_SEC_TUN_MSG_TLSC_DBG_INFO_UPDATE, "WLC_SEC_TUN_MSG_TLSC_DBG_INFO_UPDATE"},
};

uint32_t received_id() {
    uint32_t id;
    memcpy(&id, received, sizeof(id));
    return id;
}

// The received payload from offset on, as a text that ends in any case.
const char *received_text(size_t offset) { return received + payload_off + offset; }

}  // namespace

const char *tlscWlcMsgName(uint32_t msgId) {
    for (const auto &message : catalogue)
        if (message.id == msgId) return message.name;
    return "Invalid";
}

namespace {

bool is_fifo(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISFIFO(status.st_mode);
}

// Opens what stands at the path without waiting for anybody. Returns the descriptor, or -1 with errno, also for what is
// no FIFO.
int open_fifo(const char *path, int access) {
    const int fd = open(path, access | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd == -1 || is_fifo(fd)) return fd;
    close(fd);
    errno = EINVAL;
    return -1;
}

// Returns 0, or the errno. The mode must arrive in full; everything that is created later keeps to the process's own
// mask.
int create_inbound() {
    const mode_t old_mask = umask(0);
    const int    created  = mkfifo(inbound_path, inbound_mode);
    const int    error    = errno;
    (void)umask(old_mask);
    return created == -1 && error != EEXIST ? error : 0;  // By contract: a FIFO that already bears the name will do.
}

// Returns 0, or the errno. The lock tells other processes of our kind that somebody reads here.
int open_inbound() {
    inbound_fd = open_fifo(inbound_path, O_RDONLY);
    if (inbound_fd == -1) return errno;
    inbound_is_shared = flock(inbound_fd, LOCK_EX | LOCK_NB) != 0;
    return 0;
}

// True while another process reads the FIFO at the path, which is then not ours to remove.
bool is_read_by_another() {
    if (inbound_fd != -1) return inbound_is_shared;

    const int  fd    = open_fifo(inbound_path, O_RDONLY);
    const bool taken = fd != -1 && flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    if (fd != -1) close(fd);
    return taken;
}

}  // namespace

void tlscWlcDelFifo() {
    WLC_MSG_EVENT("Cleanup TLS Client WLC FIFO");
    if (is_read_by_another()) {
        WLC_MSG_EVENT("%s() - %s FIFO is left to the process that reads it", __func__, inbound_path);
        return;
    }
    if (unlink(inbound_path) == -1) {
        const char *error = strerror(errno);
        WLC_IPC_ERROR("%s() - unlink failed error:%s", __func__, error);
    }
}

int openWlcToTlscFifo() {
    WLC_IPC_EVENT("%s():", __func__);
    inbound_is_wanted = true;

    if (const int error = create_inbound(); error != 0) {
        WLC_IPC_ERROR("%s() - Create %s FIFO failed, error:%s", __func__, inbound_path, strerror(error));
        return 0;
    }
    WLC_IPC_EVENT("%s() - Create %s FIFO success", __func__, inbound_path);
    if (atexit(tlscWlcDelFifo) != 0) WLC_IPC_ERROR("%s() - Install delete FIFO handler failed", __func__);

    if (const int error = open_inbound(); error != 0) {
        WLC_IPC_ERROR("%s() - Open %s FIFO failed in O_RDONLY | O_NONBLOCK mode error:%s", __func__, inbound_path,
                      strerror(error));
        return 0;
    }
    WLC_IPC_EVENT("%s() - Open %s FIFO in O_RDONLY | O_NONBLOCK mode success", __func__, inbound_path);
    if (inbound_is_shared) WLC_IPC_ERROR("%s() - %s FIFO is already read by another process", __func__, inbound_path);
    return 1;
}

namespace {

// What could not be opened at the start is tried again, or nobody could ever reach this process; the lines of that have
// been written. A shared FIFO is made anew when the process that it belonged to took it along.
void regain_inbound() {
    constexpr tlsc_work_of tlsc_log_function{"openWlcToTlscFifo"};

    if (inbound_fd != -1 && inbound_is_shared && flock(inbound_fd, LOCK_EX | LOCK_NB) == 0) {
        struct stat status {};
        inbound_is_shared = false;
        if (fstat(inbound_fd, &status) != 0 || status.st_nlink != 0) return;
        close(inbound_fd);
        inbound_fd = -1;
    }
    if (inbound_fd != -1 || !inbound_is_wanted) return;
    if (create_inbound() != 0 || open_inbound() != 0) return;
    (void)atexit(tlscWlcDelFifo);  // a second time does no harm
    WLC_IPC_EVENT("%s() - Open %s FIFO in O_RDONLY | O_NONBLOCK mode success", "openWlcToTlscFifo", inbound_path);
}

}  // namespace

// Writers write whole messages, which a pipe keeps whole (PIPE_BUF, see pipe(7)): anything shorter is no message.
int readFromTlscFifo() {
    regain_inbound();
    memset(received, 0, sizeof(received));
    if (read(inbound_fd, received, wlc_msg_size) != static_cast<ssize_t>(wlc_msg_size)) return 0;

    WLC_MSG_EVENT("%s() -on TLS client proc, read success,Rcvd message, msgId=%d", __func__,
                  static_cast<int>(received_id()));
    messages_received.fetch_add(1, std::memory_order_relaxed);
    return 1;
}

int tlscWriteToWLC(const tlsc_wlc_msg *msg) {
    if (!msg) {
        WLC_MSG_ERROR("%s() - Input param NULL", __func__);
        return 0;
    }

    WLC_MSG_EVENT("%s() ", __func__);
    const int fd = open_fifo(outbound_path, O_WRONLY);
    if (fd == -1) {
        const char *error = strerror(errno);
        WLC_MSG_ERROR("%s() - on TLS Client proc, Open %s FIFO failed in O_WRONLY | O_NONBLOCK mode error:%s", __func__,
                      outbound_path, error);
        return 0;
    }

    errno               = 0;  // a short write sets none
    const ssize_t wrote = write(fd, msg, sizeof(*msg));
    const bool    sent  = wrote == static_cast<ssize_t>(sizeof(*msg));
    if (sent) {
        messages_sent.fetch_add(1, std::memory_order_relaxed);
    } else {
        const char *error = strerror(errno);
        WLC_MSG_ERROR(
            "%s() - on TLS Client, Error writing to FIFO %s, msgId=%d, num bytes written:%d, num bytes to be written:%u, error:%s",
            __func__, outbound_path, static_cast<int>(msg->msgId), static_cast<int>(wrote),
            static_cast<unsigned>(sizeof(*msg)), error);
        send_failures.fetch_add(1, std::memory_order_relaxed);
    }

    if (close(fd) == -1) {
        const char *error = strerror(errno);
        WLC_MSG_ERROR("%s() - on TLS Client, close %s FIFO failed, error:%s ", __func__, outbound_path, error);
    }
    return sent ? 1 : 0;
}

int tlscPostMsgToWlc(uint32_t msgId) {
    WLC_MSG_EVENT("%s() - msgid:%s ", __func__, tlscWlcMsgName(msgId));

    tlsc_wlc_msg msg{};
    msg.msgId = msgId;
    return tlscWriteToWLC(&msg);
}

int tlscWlcIpcCleanup() {
    WLC_MSG_EVENT("%s() - on TLS Client FIFO cleanup ", __func__);

    inbound_is_wanted = false;
    if (inbound_fd != -1) {
        if (close(inbound_fd) == -1) {
            WLC_MSG_ERROR("%s() - close %s FIFO failed ", __func__, inbound_path);
            return 0;
        }
        WLC_MSG_EVENT("%s() - close %s FIFO success", __func__, inbound_path);
        inbound_fd = -1;
    }
    return 1;
}

// ==== 3 Reports ==================================================================================================
// What the controller is told: tunnel state, statistics, process id, inner address, DNS servers. Each report is one
// message; one that cannot be sent is lost.

namespace {

constexpr int32_t state_none = -1;
constexpr int32_t state_down = 0;
constexpr int32_t state_up   = 1;

// What the controller was last told of the tunnel. Written by the tunnel thread, and by the main thread when it stops
// the tunnel: an atomic word that orders nothing else.
std::atomic<int32_t> reported_state{state_none};

// 1 while the controller wants a tunnel. Written by the main thread, read by the tunnel thread's reports: the same.
std::atomic<uint8_t> feature_status{0};

// The statistics as last sent; two threads send them.
tlsc_stats      last_snapshot;
pthread_mutex_t last_snapshot_lock = PTHREAD_MUTEX_INITIALIZER;

// By cause code.
constexpr const char *cause_texts[] = {
    "No Error",
    "TLS Client init failed",
    "Tunnel start failed",
    "Tunnel down due to socket error",
    "Tunnel down due to unrecoverable error during SSL write",
    "Tunnel down due to unrecoverable error during SSL read",
    "Tunnel down due to TCP connection failure",
    "Tunnel down due to SSL connection failure",
    "Tunnel down due to pthread failure",
    "Tunnel down due to CSTP response timeout",
    "Tunnel down due to CSTP response processing error",
    "Tunnel down due to max DPD timeout",
};
static_assert(std::size(cause_texts) == TLSC_DOWN_DPD_TIMEOUT + 1);

const char *state_name(int state) {
    if (state == state_up) return "UP";
    if (state == state_down) return "DOWN";
    return "NONE";
}

// A TLSC_INFO_UPDATE with its header; the body follows at info_body().
tlsc_wlc_msg info_message(uint32_t type) {
    const wlc_info_header header{.type = type, .reserved = 0};

    tlsc_wlc_msg msg{};
    msg.msgId = WLC_SEC_TUN_MSG_TLSC_INFO_UPDATE;
    memcpy(msg.payload, &header, sizeof(header));
    return msg;
}

uint8_t *info_body(tlsc_wlc_msg *msg) { return msg->payload + wlc_info_body_off; }

// Puts one server into its place in the message. False for an address of no known kind: the place stays zero.
bool fill_dns_entry(const tlsc_addr *server, wlc_dns_entry *entry) {
    if (server->kind == ADDR_IPV4) {
        entry->type = WLC_DNS_IPV4;
        memcpy(entry->addr, server->ipv4, sizeof(server->ipv4));
        return true;
    }
    if (server->kind == ADDR_IPV6) {
        entry->type = WLC_DNS_IPV6;
        memcpy(entry->addr, server->ipv6, sizeof(server->ipv6));
        return true;
    }
    return false;
}

}  // namespace

const char *tlscWlcTunDownCauseName(int cause) {
    if (cause < 0 || static_cast<size_t>(cause) >= std::size(cause_texts)) return "Invalid";
    return cause_texts[cause];
}

int tlscWlcSetSecTunFeatureStatus(uint8_t status) {
    if (status != feature_status.load(std::memory_order_relaxed)) {
        WLC_MSG_EVENT("%s() - secure tunnel feature status set to:%s", __func__, status == 1 ? "Enabled" : "Disabled");
        feature_status.store(status, std::memory_order_relaxed);
    }
    return 1;
}

uint8_t tlscWlcGetSecTunFeatureStatus() { return feature_status.load(std::memory_order_relaxed); }

int tlscWlcSetTunState(int state, int cause) {
    const int32_t current = reported_state.load(std::memory_order_relaxed);

    WLC_MSG_EVENT("%s() - tunnel state change update, current state:%s, new state:%s, cause:%d", __func__,
                  state_name(current), state_name(state), cause);
    if (state == current) {
        WLC_MSG_EVENT("Tunnel is already in the same state:%s", state_name(state));
        return 1;
    }

    // By contract: the two lines name the new state as the current one.
    if (state == state_up) {
        WLC_MSG_EVENT("%s() - tunnel current state:%s, new state:UP, posting an event:%s to WLC Fifo", __func__, "UP",
                      tlscWlcMsgName(WLC_SEC_TUN_MSG_TLSC_TUN_UP));
        reported_state.store(state_up, std::memory_order_relaxed);
        (void)tlscWlcPostTlscStateChangeMsg(state_up, cause);
    } else if (state == state_down) {
        WLC_MSG_ERROR("%s() - tunnel current state:%s, new state:DOWN, errCause:%d, posting an event:%s to WLC Fifo",
                      __func__, "DOWN", cause, tlscWlcMsgName(WLC_SEC_TUN_MSG_TLSC_TUN_DOWN));
        reported_state.store(state_down, std::memory_order_relaxed);
        (void)tlscWlcPostTlscStateChangeMsg(state_down, cause);
    } else {
        WLC_MSG_ERROR("%s() - invalid tunnel state update, state:%d", __func__, state);
    }

    // By contract: statistics follow an invalid state too.
    (void)tlscWlcPostTlscStatsUpdateMsg();
    return 1;
}

int tlscWlcPostTlscStateChangeMsg(int state, int cause) {
    const char *cause_text = tlscWlcTunDownCauseName(cause);

    WLC_MSG_EVENT("%s() - error:%s ", __func__, cause_text);
    tlsc_wlc_msg msg{};
    if (state == state_up) {
        msg.msgId = WLC_SEC_TUN_MSG_TLSC_TUN_UP;
    } else if (state == state_down) {
        msg.msgId = WLC_SEC_TUN_MSG_TLSC_TUN_DOWN;
        tlsc_copy_text(reinterpret_cast<char *>(msg.payload), max_cause_text + 1, cause_text);
    } else {
        WLC_MSG_ERROR("%s() - invalid state update, state:%d, cause:%d", __func__, state, cause);
        return 0;
    }
    return tlscWriteToWLC(&msg);
}

int tlscWlcPostTlscStatsUpdateMsg() {
    if (tlscWlcGetSecTunFeatureStatus() != 1) {
        WLC_MSG_EVENT("%s() - Secure tunnel feature is disabled, not sending stats update", __func__);
        return 1;
    }

    tlsc_stats snapshot;
    tlsc_stats_get(&snapshot);
    pthread_mutex_lock(&last_snapshot_lock);
    last_snapshot = snapshot;
    pthread_mutex_unlock(&last_snapshot_lock);

    WLC_MSG_EVENT("%s() - ", __func__);
    tlsc_wlc_msg msg = info_message(WLC_INFO_STATS);
    memcpy(info_body(&msg), &snapshot, sizeof(snapshot));
    return tlscWriteToWLC(&msg);
}

int tlscWlcPostTlscProcDbgInfoUpdateMsg() {
    WLC_MSG_EVENT("%s() - ", __func__);

    const int32_t process_id = getpid();
    tlsc_wlc_msg  msg{};
    msg.msgId = WLC_SEC_TUN_MSG_TLSC_DBG_INFO_UPDATE;
    memcpy(msg.payload, &process_id, sizeof(process_id));
    return tlscWriteToWLC(&msg);
}

int tlscWlcPostInnerIpUpdateMsg(const char *ip) {
    if (!ip) {
        WLC_MSG_ERROR("%s() - Input param NULL", __func__);
        return 0;
    }

    WLC_MSG_EVENT("%s() - inner ip update, ip:%s", __func__, ip);
    tlsc_wlc_msg msg = info_message(WLC_INFO_INNER_IP);
    tlsc_copy_text(reinterpret_cast<char *>(info_body(&msg)), max_inner_ip_text + 1, ip);
    WLC_MSG_EVENT("%s() - posting message:%s to WLC, for innerIp update:%s", __func__, tlscWlcMsgName(msg.msgId), ip);
    return tlscWriteToWLC(&msg);
}

int tlscWlcPostCloudDnsSvrInfoUpdateMsg(const tlsc_dns_list *list) {
    if (!list) {
        WLC_MSG_ERROR("%s() - Input param NULL", __func__);
        return 0;
    }

    // By contract: the count goes out as given, however many entries there are.
    const size_t entries = list->count < max_dns_servers ? list->count : max_dns_servers;
    wlc_dns_info info{};
    info.count = list->count;

    WLC_MSG_EVENT("%s() - No. of DNS server %d\n", __func__, list->count);
    for (size_t i = 0; i < entries; ++i) {
        const tlsc_addr &server = list->servers[i];
        char             text[INET_ADDRSTRLEN];
        if (server.kind == ADDR_IPV4 && inet_ntop(AF_INET, server.ipv4, text, sizeof(text)))
            WLC_MSG_EVENT("%d: %s\n", static_cast<int>(i), text);
    }
    for (size_t i = 0; i < entries; ++i)
        if (!fill_dns_entry(&list->servers[i], &info.entries[i]))
            WLC_MSG_ERROR("%s() - Invalid IP type:%d", __func__, list->servers[i].kind);

    tlsc_wlc_msg msg = info_message(WLC_INFO_DNS_SERVERS);
    memcpy(info_body(&msg), &info, sizeof(info));
    WLC_MSG_EVENT("%s() - posting message:%s to WLC", __func__, tlscWlcMsgName(msg.msgId));
    return tlscWriteToWLC(&msg);
}

// ==== 4 Messages =================================================================================================
// One handler for each message that the controller sends; the dispatcher, which calls them, comes last. Level,
// destination and gateway address travel to the tunnel thread through the command pipe and are applied there.

namespace {

struct debug_word {
    const char *word;
    int32_t     value;
};

constexpr debug_word level_words[] = {
    {"errors", LOG_ERRORS}, {"warnings", LOG_WARNINGS}, {"info", LOG_INFO},
    {"debug", LOG_DEBUG},   {"ssl-dbg", LOG_SSL_DBG},   {"buf-print", LOG_BUF_PRINT},
};

constexpr debug_word dest_words[] = {
    {"file", LOG_DEST_FILE},
    {"console", LOG_DEST_CONSOLE},
    {"both", LOG_DEST_BOTH},
};

constexpr int32_t unknown_word = -1;

// A text of a message or of the file as it may be printed: whoever sends it could put a line of his own into the log.
struct printable {
    explicit printable(const char *from) { tlsc_log_show(from, text, sizeof(text)); }

    char text[wlc_payload_size * 2];
};

bool begins_with(const char *text, const char *word) { return strncmp(text, word, strlen(word)) == 0; }

// By contract: a text that only begins with the word matches it.
template <size_t n>
int32_t value_of_word(const debug_word (&words)[n], const char *text) {
    for (const debug_word &known : words)
        if (begins_with(text, known.word)) return known.value;
    return unknown_word;
}

}  // namespace

int tlscWlcStartTunnelSetup() {
    WLC_MSG_EVENT("%s(): On TLS Client, starting the tunnel setup", __func__);

    const int32_t initialised = tlsc_init();
    if (initialised == 0) {
        WLC_MSG_ERROR("TLS Client: Initialization failed, ret:%d", initialised);
        (void)tlscWlcPostTlscStateChangeMsg(state_down, TLSC_DOWN_INIT_FAILED);
        return 0;
    }
    WLC_MSG_EVENT("TLS Client: Initialization successful");

    const int32_t started = tlsc_start_epoll_mon_thread();
    if (started != 1) {
        WLC_MSG_ERROR("TLS Client: Starting tunnel setup failed, ret:%d", started);
        (void)tlscWlcPostTlscStateChangeMsg(state_down, TLSC_DOWN_START_FAILED);
        return 0;
    }
    WLC_MSG_EVENT("TLS Client: Starting tunnel setup successful");
    (void)tlscPostMsgToWlc(WLC_SEC_TUN_MSG_TLSC_TUN_IN_PROG);
    return 1;
}

int tlscWlcMsgRcvSecTunStart() {
    WLC_MSG_EVENT("TLS Client  - start the tunnel setup");

    (void)tlscWlcSetSecTunFeatureStatus(1);
    (void)tlscWlcClearCfgParams();
    (void)wlcSecTunReadAllConf();
    (void)tlscWlcStartTunnelSetup();
    return 1;
}

int tlscWlcMsgRcvSecTunStop() {
    WLC_MSG_EVENT("TLS Client  - stop the tunnel setup");

    (void)tlsc_stop_client();
    (void)tlscWlcSetSecTunFeatureStatus(0);
    // By contract: the controller asked for it and is told nothing; the next DOWN counts as a change again.
    reported_state.store(state_none, std::memory_order_relaxed);
    return 1;
}

int tlscWlcMsgRcvSecTunReStart() {
    WLC_MSG_EVENT("%s() - ", __func__);

    (void)tlsc_stop_client();
    (void)sleep(1);  // time for the tunnel thread to take the order
    (void)tlscWlcClearCfgParams();
    (void)wlcSecTunReadAllConf();
    (void)tlscWlcStartTunnelSetup();
    return 1;
}

void tlscWlcSetDebugParams() {
    WLC_MSG_EVENT("%s() - On TLS Client, setting TLSC debug parameters message, level:%s, destination:%s", __func__,
                  printable(params.log_level).text, printable(params.log_dest).text);

    if (params.log_level[0] != '\0') {
        int32_t level = value_of_word(level_words, params.log_level);
        if (level == unknown_word) {
            level = LOG_ERRORS;
            WLC_MSG_ERROR("%s() - TLS Client, invalid debug level:%s, setting default level: error", __func__,
                          printable(params.log_level).text);
        }
        tlsc_post_log_level(level);
    }
    if (params.log_dest[0] != '\0') {
        int32_t dest = value_of_word(dest_words, params.log_dest);
        if (dest == unknown_word) {
            dest = LOG_DEST_FILE;
            WLC_MSG_ERROR("%s() - TLS Client, invalid debug destination:%s, setting default :file", __func__,
                          printable(params.log_dest).text);
        }
        tlsc_post_log_dest(dest);
    }
}

int tlscWlcMsgRcvTlscDebugsSetHandler() {
    char category[sizeof(wlc_debug_set::category) + 1];
    char value[sizeof(wlc_debug_set::value) + 1];
    tlsc_copy_text(category, sizeof(category), received_text(offsetof(wlc_debug_set, category)));
    tlsc_copy_text(value, sizeof(value), received_text(offsetof(wlc_debug_set, value)));

    WLC_MSG_EVENT("%s() - On TLS Client, Received  TLS client debugs set message, category:%s, level:%s", __func__,
                  printable(category).text, printable(value).text);
    const bool    is_level = begins_with(category, "level");
    const bool    is_dest  = !is_level && begins_with(category, "destination");
    const int32_t setting  = is_level  ? value_of_word(level_words, value)
                             : is_dest ? value_of_word(dest_words, value)
                                       : unknown_word;

    if (setting == unknown_word) {
        // By contract: the arguments stand one place early, and another category than the two is no failure.
        WLC_MSG_ERROR("%s() - TLS Client, debug set msg received, invalid params,category:%s, level:%s",
                      printable(category).text, printable(value).text, "");
        return is_level || is_dest ? 0 : 1;
    }
    if (is_level) {
        tlsc_copy_text(params.log_level, sizeof(params.log_level), value);
        tlsc_post_log_level(setting);
    } else {
        tlsc_copy_text(params.log_dest, sizeof(params.log_dest), value);
        tlsc_post_log_dest(setting);
    }
    return 1;
}

int tlscWlcMsgRcvTlsGwFqdnResolveResHandler() {
    const char *text = received_text(0);
    WLC_MSG_EVENT("%s() - Received TLS GW FQDN response message from WLC, GW ip:%s", __func__, printable(text).text);

    const bool   is_ipv6 = strchr(text, ':') != nullptr;
    tlsc_gw_addr gw{};
    gw.kind             = is_ipv6 ? ADDR_IPV6 : ADDR_IPV4;
    gw.family           = is_ipv6 ? AF_INET6 : AF_INET;
    const int converted = is_ipv6 ? inet_pton(AF_INET6, text, gw.ipv6) : inet_pton(AF_INET, text, gw.ipv4);

    // By contract: a text that is no address passes, with an address of zeroes.
    if (converted == -1) {
        WLC_MSG_ERROR("%s() - invalid ip received:%s", __func__, printable(text).text);
        return 0;
    }
    (void)tlsc_post_gw_ip(gw);  // logged where it fails
    return 1;
}

int tlscWlcMsgSendTlsGwFqdnResolveReq() {
    WLC_MSG_EVENT("%s() - Sending TLS GW FQDN request message to WLC", __func__);
    return tlscPostMsgToWlc(WLC_SEC_TUN_MSG_TLSC_GW_FQDN_REQ);
}

int tlscWlcMsgRcvTlscStatsRequestHandler() {
    WLC_MSG_EVENT("%s() - ", __func__);
    (void)tlscWlcPostTlscStatsUpdateMsg();
    return 1;
}

int tlscWlcMsgRcvTlscStatsClearHandler() {
    tlsc_stats_clear();
    (void)tlscWlcPostTlscStatsUpdateMsg();
    return 1;
}

int tlscWlcMsgRcvTlscDbgInfoReqHandler() {
    WLC_MSG_EVENT("%s() - ", __func__);
    (void)tlscWlcPostTlscProcDbgInfoUpdateMsg();
    return 1;
}

// A handler's result never stops the loop.
int wlcTlscFifoHandler() {
    while (readFromTlscFifo()) {
        const uint32_t id   = received_id();
        const char    *name = tlscWlcMsgName(id);
        WLC_IPC_EVENT("%s() - [%d]%s Message received on TLS Client", __func__, static_cast<int>(id), name);

        switch (id) {
        case WLC_MSG_EXIT_PROCESS:
            // By contract: what waits behind the order stays unread.
            WLC_IPC_EVENT("TLS Client process: Received EXIT message");
            return -2;
        case WLC_SEC_TUN_MSG_HELLO:
            WLC_IPC_EVENT("Received Hello from WLC");
            (void)tlscPostMsgToWlc(WLC_SEC_TUN_MSG_HELLO);
            break;
        case WLC_SEC_TUN_MSG_TLSC_TUN_START: (void)tlscWlcMsgRcvSecTunStart(); break;
        case WLC_SEC_TUN_MSG_TLSC_TUN_STOP: (void)tlscWlcMsgRcvSecTunStop(); break;
        case WLC_SEC_TUN_MSG_TLSC_TUN_RESTART: (void)tlscWlcMsgRcvSecTunReStart(); break;
        case WLC_SEC_TUN_MSG_TLSC_GW_FQDN_RES: (void)tlscWlcMsgRcvTlsGwFqdnResolveResHandler(); break;
        case WLC_SEC_TUN_MSG_TLSC_DEBUG_SET: (void)tlscWlcMsgRcvTlscDebugsSetHandler(); break;
        case WLC_MSG_STATS_REQ: (void)tlscWlcMsgRcvTlscStatsRequestHandler(); break;
        case WLC_MSG_STATS_CLEAR: (void)tlscWlcMsgRcvTlscStatsClearHandler(); break;
        case WLC_SEC_TUN_MSG_TLSC_DBG_INFO_REQ: (void)tlscWlcMsgRcvTlscDbgInfoReqHandler(); break;
        default:
            // By contract: message 31 bears the name of an exit and is none.
            WLC_IPC_ERROR("%s - Msg:%s, id:%d received, but not processed", __func__, name, static_cast<int>(id));
            break;
        }
    }
    return 0;
}

// ==== 5 Start and end ============================================================================================

int tlscWlcInit() {
    if (tlscWlcBootupDbgFlagPresent()) tlscWlcSetBootupDbgFlags(1);
    WLC_IPC_EVENT("TLS Client: WLC initialization");

    params = {};
    feature_status.store(0, std::memory_order_relaxed);
    reported_state.store(state_none, std::memory_order_relaxed);

    // By contract: without its FIFO the client still greets the controller and counts as initialised.
    (void)openWlcToTlscFifo();
    WLC_IPC_EVENT("TLS Client is up and running, posting HELLO message to WLC");
    (void)tlscPostMsgToWlc(WLC_SEC_TUN_MSG_HELLO);
    return 1;
}

int tlscWlcCleanUp() {
    WLC_MSG_EVENT("%s()", __func__);
    explicit_bzero(params.psk_key, sizeof(params.psk_key));
    (void)tlscWlcIpcCleanup();
    return 1;  // By contract: whatever the close gave; it has its line.
}
