#include "utils/read_configuration.h"

#include <cstdlib>
#include <cstring>

#include "utils/product_log.h"

const char* const HMX_CONF_FILE = "/etc/hmx/hmx.conf";

const char* const theHmxConfNames[HMX_CONF_VAR_COUNT] = {
    "_MIN_POSSIBLE_HMX_CONF_VAR_NAME",
    "TAVIK_MAILNAMES_D",
    "COURIER_IMAP_ROOT_D",
    "RBLSMTPD",
    "CLIENT_PHP_BIN",
    "LIB_CRYPTO_PATH",
    "LIB_SSL_PATH",
    "AWSTATS_DOC_D",
    "AWSTATS_TOOLS_D",
    "AWSTATS_BIN_D",
    "AWSTATS_ETC_D",
    "CATALINA_HOME",
    "MAILMAN_VAR_D",
    "MAILMAN_ROOT_D",
    "PGSQL_DATA_D",
    "PGSQL_BIN_D",
    "MYSQL_BIN_D",
    "MYSQL_VAR_D",
    "WEB_STAT",
    "DUMP_D",
    "DUMP_TMP_D",
    "NAMED_RUN_ROOT_D",
    "FTPD_CONF_INC",
    "HTTPD_SERVICE",
    "HTTPD_LOG_D",
    "HTTPD_INCLUDE_D",
    "HTTPD_CONF_D",
    "HTTPD_VHOSTS_D",
    "PRODUCT_ROOT_D",
    "_MAX_POSSIBLE_HMX_CONF_VAR_NAME",
};

const char* const theHmxConfDefauls[HMX_CONF_VAR_COUNT] = {
    "_MIN_POSSIBLE_HMX_CONF_VAR_VALUE",
    "/var/qmail/mailnames",
    "/",
    "/usr/sbin/rblsmtpd",
    "/usr/local/hmx/bin/php-cli",
    "/lib/libcrypto.so",
    "/lib/libssl.so",
    "/var/www/html/awstats",
    "/usr/share/awstats",
    "/var/www/cgi-bin/awstats",
    "/etc/awstats",
    "/usr/share/tomcat5",
    "/var/lib/mailman",
    "/usr/lib/mailman",
    "/var/lib/pgsql/data",
    "/usr/bin",
    "/usr/bin",
    "/var/lib/mysql",
    "/usr/bin/webalizer",
    "/var/lib/hmx/dumps",
    "/tmp",
    "/var/named/run-root",
    "/etc/proftpd.include",
    "httpd",
    "/var/log/httpd",
    "/etc/httpd/conf.d",
    "/etc/httpd/conf",
    "/var/www/vhosts",
    "/usr/local/hmx",
    "_MAX_POSSIBLE_HMX_CONF_VAR_VALUE",
};

// Loaded at most once successfully and never freed: the cache points into it.
static conf_data* theHmxConfHash = nullptr;
static const char* theHmxConfArray[HMX_CONF_VAR_COUNT];
static int arrayInitialized = 0;

static bool inTable(HmxConfVarIndexT index) {
    const int i = static_cast<int>(index);
    return i >= _MIN_POSSIBLE_HMX_CONF_VAR_NAME && i <= _MAX_POSSIBLE_HMX_CONF_VAR_NAME;
}

// 0 when the configuration is loaded; a failed load leaves nothing behind, so the next look-up
// tries again.
static int loadHmxConf(conf_message_sink sink = nullptr, void* context = nullptr) {
    if (!arrayInitialized) {
        for (const char*& value : theHmxConfArray) value = nullptr;
        arrayInitialized = 1;
    }
    if (theHmxConfHash != nullptr) return 0;
    conf_data* conf = static_cast<conf_data*>(calloc(1, sizeof(conf_data)));
    if (conf == nullptr) {
        messlog2(0, 0, "Not enough memory to allocate Tavik runtime configuration structure\n");
        return -1;
    }
    if (conf_read_file_to(HMX_CONF_FILE, conf, sink, context) != 0) {
        conf_free_r(conf);
        return -1;
    }
    theHmxConfHash = conf;
    return 0;
}

int autoprepend() { return loadHmxConf(); }

int autoprepend_to(conf_message_sink sink, void* context) { return loadHmxConf(sink, context); }

const char* hmxConfGet(const char* name) {
    if (loadHmxConf() != 0) return nullptr;
    return conf_get_r(name, theHmxConfHash);
}

const char* hmxConfGetByIndex(HmxConfVarIndexT index) {
    if (!inTable(index)) return nullptr;
    if (arrayInitialized && theHmxConfArray[index] != nullptr) return theHmxConfArray[index];
    if (loadHmxConf() != 0) return nullptr;
    const char* value = conf_get_r(theHmxConfNames[index], theHmxConfHash);
    if (value != nullptr) theHmxConfArray[index] = value;
    return value;
}

const char* hmxConfGetDefaultByIndex(HmxConfVarIndexT index) {
    const char* value = hmxConfGetByIndex(index);
    if (value != nullptr) return value;
    return inTable(index) ? theHmxConfDefauls[index] : nullptr;
}

const char* hmxConfGetDefault(const char* name) {
    for (int i = _MIN_POSSIBLE_HMX_CONF_VAR_NAME; i < _MAX_POSSIBLE_HMX_CONF_VAR_NAME; ++i) {
        if (strcmp(theHmxConfNames[i], name) == 0) {
            return hmxConfGetDefaultByIndex(static_cast<HmxConfVarIndexT>(i));
        }
    }
    messlog2(0, 0, "variable '%s' isn't found neither in %s nor in compile-time defaults\n", name,
             HMX_CONF_FILE);
    return nullptr;
}
