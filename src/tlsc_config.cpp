// Contents: 1 the configuration record and its defaults  2 one value of the local file  3 one step per setting
//           4 the whole local file
#include "tlsc_config.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "tlsc_debug.h"
#include "tlsc_utils.h"

// ---- 1 the configuration record and its defaults --------------------------------------------------------------------

char psk_identity[psk_identity_size];
char psk_key[psk_key_size];

namespace {

tlsc_config config;

}  // namespace

const char *tlsc_masked_psk_key() { return psk_key[0] != '\0' ? "***" : ""; }

tlsc_config *tlsc_get_config() { return &config; }

void tlsc_set_config_defaults(tlsc_config *conf) {
    if (!conf) {
        TLSC_ERROR("Conf pointer is NULL");
        return;
    }

    memset(conf, 0, sizeof(*conf));
    TLSC_INFO("Setting default configurations");

    conf->dpd_interval = default_dpd_seconds;
    TLSC_DEBUG("DPD Interval default = %d", conf->dpd_interval);
    conf->retry_interval = default_retry_seconds;
    TLSC_DEBUG("Retry Interval default = %d", conf->retry_interval);
    conf->rekey_interval = default_rekey_seconds;
    TLSC_DEBUG("Rekey Interval default = %d", conf->rekey_interval);
    conf->fqdn_resolution_interval = default_fqdn_seconds;
    TLSC_DEBUG("FQDN Resoln Interval default = %d", conf->fqdn_resolution_interval);
    conf->prefix.kind = ADDR_IPV4;
    TLSC_DEBUG("Default prefix type = ADDR_IPV4");
}

// ---- 2 one value of the local file ----------------------------------------------------------------------------------

namespace {

constexpr size_t line_size  = 500;  // one piece of a line: 499 characters
constexpr size_t value_size = 500;  // takes the value of any such piece

constexpr char local_config_file[] = "tls_client_config.txt";  // in the working directory

// Everything behind the line's last "=", less the last character, which is the line end.
// By contract: a last line without a line end loses its last character.
bool extract_value(const char *line, char *value_out) {
    const char *equals = strrchr(line, '=');
    if (!equals) return false;

    const char *value  = equals + 1;
    size_t      length = strlen(value);
    if (length > 0) --length;
    memcpy(value_out, value, length);
    value_out[length] = '\0';
    return true;
}

}  // namespace

// By contract: the key counts wherever it stands in a line, also in one that begins with "#"; the last line wins.
int32_t tlsc_read_param_val(const char *key, char *value_out) {
    if (!key || !value_out) {
        TLSC_ERROR("Null ptr received for key/value");
        return 0;
    }

    FILE *file = fopen(local_config_file, "re");
    if (!file) {
        TLSC_ERROR("Can't open config file, errno=%d", errno);
        return 0;
    }

    int32_t found = 0;
    char    line[line_size];
    while (fgets(line, sizeof(line), file))
        if (strstr(line, key) && extract_value(line, value_out)) found = 1;
    (void)fclose(file);  // Nothing was written.
    return found;
}

// ---- 3 one step per setting -----------------------------------------------------------------------------------------
// The accessors, one per key, then the steps in the order in which the loader takes them. A step logs its outcome and
// returns 1 to go on, 0 to end the load.

namespace {
namespace loading {

constexpr tlsc_work_of tlsc_log_function{"tlsc_read_config_file"};  // what every step here is part of

int32_t read_server_ip_address(char *value) { return tlsc_read_param_val("server_ip_address", value); }
int32_t read_server_port(char *value) { return tlsc_read_param_val("server_port", value); }
int32_t read_management_ip(char *value) { return tlsc_read_param_val("management_ip", value); }
int32_t read_tun_interface_name(char *value) { return tlsc_read_param_val("tun_interface_name", value); }
int32_t read_ssl_auth_mech(char *value) { return tlsc_read_param_val("ssl_authentication_mechanism", value); }
int32_t read_ssl_certificate(char *value) { return tlsc_read_param_val("ssl_certificate", value); }
int32_t read_ssl_private_key(char *value) { return tlsc_read_param_val("ssl_private_key", value); }
int32_t read_ssl_rootca_bundle(char *value) { return tlsc_read_param_val("ssl_rootca_bundle", value); }
int32_t read_ssl_crl(char *value) { return tlsc_read_param_val("ssl_crl", value); }
int32_t read_psk_identity(char *value) { return tlsc_read_param_val("psk_identity", value); }
int32_t read_psk_key(char *value) { return tlsc_read_param_val("psk_key", value); }
int32_t read_cipher_algo(char *value) { return tlsc_read_param_val("cipher_algo", value); }
int32_t read_device_id(char *value) { return tlsc_read_param_val("device_id", value); }
int32_t read_device_name(char *value) { return tlsc_read_param_val("device_name", value); }
int32_t read_serial_no(char *value) { return tlsc_read_param_val("serial_no", value); }
int32_t read_log_level(char *value) { return tlsc_read_param_val("log_level", value); }

constexpr uint16_t default_server_port   = 443;
constexpr char     default_cipher_algo[] = "DHE-PSK-AES256-CBC-SHA";

constexpr int min_psk_identity_text   = 3;
constexpr int max_psk_identity_text   = psk_identity_size - 1;
constexpr int min_psk_key_text        = 5;
constexpr int max_psk_key_text        = psk_key_size - 1;
constexpr int printed_max_psk_key     = 4;
constexpr int printed_max_path        = path_text_size;
constexpr int printed_max_device_name = name_text_size - 1;
constexpr int printed_max_serial_no   = id_text_size - 1;

bool has_file(const char *path) { return access(path, F_OK) == 0; }

int32_t load_server_ip_address(tlsc_config *conf) {
    char value[value_size];
    if (!read_server_ip_address(value)) {
        TLSC_ERROR("Server Addr not found!!");
        return 0;
    }
    if (strlen(value) >= sizeof(conf->svr_addr_ipv4)) {
        TLSC_ERROR("Invalid Server Addr!!");
        return 0;
    }

    tlsc_copy_text(conf->svr_addr_ipv4, sizeof(conf->svr_addr_ipv4), value);
    TLSC_DEBUG("Server IP address set from config file:%s", conf->svr_addr_ipv4);
    return 1;
}

int32_t load_server_port(tlsc_config *conf) {
    char value[value_size];
    if (!read_server_port(value)) {
        TLSC_WARNING("Server Port not found, setting to default!!");
        conf->server_port = default_server_port;
        return 1;
    }

    conf->server_port = static_cast<uint16_t>(tlsc_decimal(value));
    TLSC_DEBUG("Server port set from config file");
    return 1;
}

int32_t load_management_ip(tlsc_config *conf) {
    char value[value_size];
    if (!read_management_ip(value)) {
        TLSC_ERROR("Mgmt IP not found!!");
        return 0;
    }
    if (strlen(value) >= sizeof(conf->management_ip)) {
        TLSC_ERROR("Invalid Mgmt IP!!");
        return 0;
    }

    tlsc_copy_text(conf->management_ip, sizeof(conf->management_ip), value);
    return 1;
}

int32_t load_tun_interface_name(tlsc_config *conf) {
    char value[value_size];
    if (!read_tun_interface_name(value)) {
        TLSC_ERROR("TUN name not found!!");
        return 0;
    }
    if (strlen(value) >= sizeof(conf->tun_interface_name)) {
        TLSC_ERROR("Invalid TUN name!!");
        return 0;
    }

    tlsc_copy_text(conf->tun_interface_name, sizeof(conf->tun_interface_name), value);
    TLSC_DEBUG("Tun Interface name set from config file");
    return 1;
}

int32_t load_ssl_auth_mech(tlsc_config *conf) {
    char value[value_size];
    if (!read_ssl_auth_mech(value)) {
        TLSC_ERROR("SSL Authentication mechanism not found in config file");
        return 0;
    }

    if (strcmp(value, "certificate") == 0) {
        conf->ssl_auth_mech = SSL_AUTH_CERTIFICATE;
        TLSC_DEBUG("SSL auth-mech set to Certificate");
    } else if (strcmp(value, "psk") == 0) {
        conf->ssl_auth_mech = SSL_AUTH_PSK;
        TLSC_DEBUG("SSL auth-mech set to PSK");
    } else {
        TLSC_ERROR("Invalid SSL authentication-mechanism!!");
        return 0;
    }
    return 1;
}

int32_t load_ssl_certificate(tlsc_config *conf) {
    char value[value_size];
    if (!read_ssl_certificate(value)) {
        TLSC_ERROR("SSL certificate not provided!!");
        return 0;
    }
    if (strlen(value) >= sizeof(conf->ssl_certificate)) {
        TLSC_ERROR("The ssl-certificate file-path is more than max-size(%d)", printed_max_path);
        return 0;
    }
    if (!has_file(value)) {
        TLSC_ERROR("Invalid SSL certificate file. No file found with name(%s)!!", value);
        return 0;
    }

    tlsc_copy_text(conf->ssl_certificate, sizeof(conf->ssl_certificate), value);
    TLSC_DEBUG("SSL certificate file path set successfully");
    return 1;
}

int32_t load_ssl_private_key(tlsc_config *conf) {
    char value[value_size];
    if (!read_ssl_private_key(value)) {
        TLSC_ERROR("SSL private_key not provided!!");
        return 0;
    }
    if (strlen(value) >= sizeof(conf->ssl_private_key)) {
        TLSC_ERROR("The ssl-private_key file-path is more than max-size(%d)", printed_max_path);
        return 0;
    }
    if (!has_file(value)) {
        TLSC_ERROR("Invalid SSL private-key file!! No file found with name(%s)!!", value);
        return 0;
    }

    tlsc_copy_text(conf->ssl_private_key, sizeof(conf->ssl_private_key), value);
    TLSC_DEBUG("SSL private_key file path set successfully");
    return 1;
}

int32_t load_ssl_rootca_bundle(tlsc_config *conf) {
    char value[value_size];
    if (!read_ssl_rootca_bundle(value)) {
        TLSC_ERROR("SSL root-ca not provided!!");
        return 0;
    }
    if (strlen(value) >= sizeof(conf->ssl_rootca_bundle)) {
        TLSC_ERROR("The ssl-root_ca file-path is more than max-size(%d)", printed_max_path);
        return 0;
    }
    if (!has_file(value)) {
        TLSC_ERROR("Invalid SSL root-ca file!! No file found with name(%s)!!", value);
        return 0;
    }

    tlsc_copy_text(conf->ssl_rootca_bundle, sizeof(conf->ssl_rootca_bundle), value);
    TLSC_DEBUG("SSL root_ca file path set successfully");
    return 1;
}

int32_t load_ssl_crl(tlsc_config *conf) {
    char value[value_size];
    if (!read_ssl_crl(value)) {
        TLSC_ERROR("SSL crl not provided!!");
        return 0;
    }
    if (strlen(value) >= sizeof(conf->ssl_crl)) {
        // By contract: an over-long CRL path is reported with the root-ca text.
        TLSC_ERROR("The ssl-root_ca file-path is more than max-size(%d)", printed_max_path);
        return 0;
    }
    if (!has_file(value)) {
        TLSC_ERROR("Invalid SSL crl file!! No file found with name(%s)!!", value);
        return 0;
    }

    tlsc_copy_text(conf->ssl_crl, sizeof(conf->ssl_crl), value);
    TLSC_DEBUG("SSL crl file path set successfully");
    return 1;
}

int32_t load_psk_identity() {
    char value[value_size];
    if (!read_psk_identity(value)) {
        TLSC_ERROR("PSK ID not found!!");
        return 0;
    }

    int length = static_cast<int>(strlen(value));
    if (length < min_psk_identity_text || length > max_psk_identity_text) {
        TLSC_ERROR("Invalid PSK ID length(%d). Range(%d-%d)!!", length, min_psk_identity_text, max_psk_identity_text);
        return 0;
    }
    tlsc_copy_text(psk_identity, sizeof(psk_identity), value);
    TLSC_DEBUG("PSK-identity set from config file");
    return 1;
}

int32_t load_psk_key() {
    char value[value_size];
    if (!read_psk_key(value)) {
        TLSC_ERROR("PSK Key not found in config file!!");
        return 0;
    }

    int length = static_cast<int>(strlen(value));
    if (length < min_psk_key_text || length > max_psk_key_text) {
        // By contract: the range is printed as 5-4, although 5 to 256 characters are accepted.
        TLSC_ERROR("Invalid PSK Key length(%d). Range(%d-%d)!!", length, min_psk_key_text, printed_max_psk_key);
        return 0;
    }
    tlsc_copy_text(psk_key, sizeof(psk_key), value);
    TLSC_DEBUG("PSK-key set from config file");
    return 1;
}

// The settings that belong to the mechanism; those of the other one are not looked at.
int32_t load_credentials(tlsc_config *conf) {
    if (conf->ssl_auth_mech == SSL_AUTH_CERTIFICATE)
        return load_ssl_certificate(conf) && load_ssl_private_key(conf) && load_ssl_rootca_bundle(conf) &&
               load_ssl_crl(conf);
    return load_psk_identity() && load_psk_key();
}

int32_t load_cipher_algo(tlsc_config *conf) {
    char value[value_size];
    if (!read_cipher_algo(value)) {
        TLSC_WARNING("Cipher algo not found, setting to default!!");
        tlsc_copy_text(conf->cipher_algo, sizeof(conf->cipher_algo), default_cipher_algo);
        return 1;
    }
    if (strlen(value) >= sizeof(conf->cipher_algo)) {
        TLSC_ERROR("Invalid Cipher Algo!!");
        return 0;
    }

    tlsc_copy_text(conf->cipher_algo, sizeof(conf->cipher_algo), value);
    TLSC_DEBUG("Cipher-algo set from config file");
    return 1;
}

int32_t load_device_id(tlsc_config *conf) {
    char value[value_size];
    if (!read_device_id(value)) {
        TLSC_ERROR("Device ID not found!!");
        return 0;
    }
    if (strlen(value) >= sizeof(conf->device_id)) {
        TLSC_ERROR("Invalid Device ID!!");
        return 0;
    }

    tlsc_copy_text(conf->device_id, sizeof(conf->device_id), value);
    TLSC_DEBUG("Device id set from config file");
    return 1;
}

int32_t load_device_name(tlsc_config *conf) {
    char value[value_size];
    if (!read_device_name(value)) {
        TLSC_WARNING("Device Name not found!!");
        return 1;
    }
    if (strlen(value) >= sizeof(conf->device_name)) {
        TLSC_ERROR("Device Name longer than max allowed(%d)!!", printed_max_device_name);
        return 0;
    }

    tlsc_copy_text(conf->device_name, sizeof(conf->device_name), value);
    TLSC_DEBUG("Device name set from config file");
    return 1;
}

int32_t load_serial_no(tlsc_config *conf) {
    char value[value_size];
    if (!read_serial_no(value)) {
        TLSC_WARNING("Device serial no. not found!!");
        return 1;
    }
    if (strlen(value) >= sizeof(conf->serial_no)) {
        TLSC_ERROR("Device serial no. longer than max allowed(%d)!!", printed_max_serial_no);
        return 0;
    }

    tlsc_copy_text(conf->serial_no, sizeof(conf->serial_no), value);
    TLSC_DEBUG("Device serial no. set from config file");
    return 1;
}

int32_t load_log_level() {
    char value[value_size];
    if (!read_log_level(value)) {
        TLSC_WARNING("Log level not found, setting to default!!");
        tlsc_log_level = LOG_INFO;
        return 1;
    }

    int32_t level = tlsc_decimal(value);
    if (level < LOG_ERRORS || level > LOG_BUF_PRINT) {
        TLSC_WARNING("Invalid log level received in config file... Setting to default level INFO(%d)", LOG_INFO);
        tlsc_log_level = LOG_INFO;
        return 1;
    }
    tlsc_log_level = level;
    TLSC_DEBUG("Log level set from config file, Log-Level = %d", level);
    return 1;
}

int32_t load_settings(tlsc_config *conf) {
    return load_server_ip_address(conf) && load_server_port(conf) && load_management_ip(conf) &&
           load_tun_interface_name(conf) && load_ssl_auth_mech(conf) && load_credentials(conf) &&
           load_cipher_algo(conf) && load_device_id(conf) && load_device_name(conf) && load_serial_no(conf) &&
           load_log_level();
}

}  // namespace loading
}  // namespace

// ---- 4 the whole local file -----------------------------------------------------------------------------------------

int32_t tlsc_read_config_file(tlsc_config *conf) {
    if (!conf) {
        TLSC_ERROR("Null ptr received for conf");
        return 0;
    }

    return loading::load_settings(conf);
}
