// The host's product configuration (/etc/hmx/hmx.conf) and the small key/value store it is read
// into. Plain functions that never throw: failures are logged and answered with -1 or null.
#ifndef FERRYGATE_UTILS_READ_CONFIGURATION_H
#define FERRYGATE_UTILS_READ_CONFIGURATION_H

#include <cstddef>

// One definition; both strings are owned by the store.
struct conf_entry {
    char* key;
    char* value;
};

// A store starts zero-filled; conf_free_r releases a heap-allocated one with all it owns.
struct conf_data {
    conf_entry* entries;
    size_t size;    // capacity, in entries
    size_t nmemb;   // entries in use
    int finalized;  // non-zero while the entries are sorted by key
};

// Allocates the first 20 entries, or grows a full array. 0, or -1 (errno ENOMEM).
int conf_init_r(conf_data* conf);
// Stores copies of both texts; a key already present gets the new value. 0 or -1.
int conf_set_r(const char* name, const char* value, conf_data* conf);
// The value stored for `name`, owned by the store, or null.
const char* conf_get_r(const char* name, const conf_data* conf);
// Sorts the entries by key (byte-wise) unless they already are.
void conf_finalize_r(conf_data* conf);
// Adds every "NAME value" line of the file at `path`; later definitions win. 0 or -1. A
// malformed line is reported and skipped; a file that cannot be opened or read is reported.
int conf_read_file_r(const char* path, conf_data* conf);
// Receives each report of the reader: one line of text that names the file and, for a malformed
// line, its number.
typedef void (*conf_message_sink)(void* context, const char* message);
// conf_read_file_r with the reports handed to `sink` (null: the utility log, tavik_log).
int conf_read_file_to(const char* path, conf_data* conf, conf_message_sink sink, void* context);
// Frees every key and value, the array and `conf` itself, which must come from malloc/calloc.
void conf_free_r(conf_data* conf);

// The variables the product always defines, indexing theHmxConfNames and theHmxConfDefauls.
// The first and the last are sentinels.
enum HmxConfVarIndexT {
    _MIN_POSSIBLE_HMX_CONF_VAR_NAME = 0,
    TAVIK_MAILNAMES_D,
    COURIER_IMAP_ROOT_D,
    RBLSMTPD,
    CLIENT_PHP_BIN,
    LIB_CRYPTO_PATH,
    LIB_SSL_PATH,
    AWSTATS_DOC_D,
    AWSTATS_TOOLS_D,
    AWSTATS_BIN_D,
    AWSTATS_ETC_D,
    CATALINA_HOME,
    MAILMAN_VAR_D,
    MAILMAN_ROOT_D,
    PGSQL_DATA_D,
    PGSQL_BIN_D,
    MYSQL_BIN_D,
    MYSQL_VAR_D,
    WEB_STAT,
    DUMP_D,
    DUMP_TMP_D,
    NAMED_RUN_ROOT_D,
    FTPD_CONF_INC,
    HTTPD_SERVICE,
    HTTPD_LOG_D,
    HTTPD_INCLUDE_D,
    HTTPD_CONF_D,
    HTTPD_VHOSTS_D,
    PRODUCT_ROOT_D,
    _MAX_POSSIBLE_HMX_CONF_VAR_NAME
};

enum { HMX_CONF_VAR_COUNT = _MAX_POSSIBLE_HMX_CONF_VAR_NAME + 1 };

extern const char* const theHmxConfNames[HMX_CONF_VAR_COUNT];
extern const char* const theHmxConfDefauls[HMX_CONF_VAR_COUNT];

// Where the product configuration lives.
extern const char* const HMX_CONF_FILE;

// Loads the product configuration unless it already is. 0, or -1 (retried on the next call).
int autoprepend();
// The same with the reader's reports handed to `sink`: the driver reads the file before its
// debug log can exist, and keeps them until then.
int autoprepend_to(conf_message_sink sink, void* context);
// The value of any variable the file defines, or null; no defaults.
const char* hmxConfGet(const char* name);
// The file's value of a table variable, or null.
const char* hmxConfGetByIndex(HmxConfVarIndexT index);
// The file's value of a table variable, else its compile-time default.
const char* hmxConfGetDefaultByIndex(HmxConfVarIndexT index);
// As hmxConfGetDefaultByIndex, by name; null (and a message) for a name outside the table.
const char* hmxConfGetDefault(const char* name);

#endif  // FERRYGATE_UTILS_READ_CONFIGURATION_H
