#include "utils/files.h"

#include "utils/read_configuration.h"

namespace tavik {
namespace files {

namespace {
std::string value(HmxConfVarIndexT index) { return hmxConfGetDefaultByIndex(index); }
std::string product() { return value(PRODUCT_ROOT_D); }
std::string data() { return product() + "/RKU"; }
const char kAdminSbin[] = "/admin/sbin/";
const char kAdminConf[] = "/admin/conf";
}  // namespace

std::string getRcDir() { return "/etc/init.d"; }
std::string getRemoteDumpingStatusFileName() { return "dumping-status.xml"; }
std::string getMailmanVarDir() { return value(MAILMAN_VAR_D); }
std::string getPgsqlBinDir() { return value(PGSQL_BIN_D); }
std::string getMysqlBinDir() { return value(MYSQL_BIN_D); }
std::string getMailDir() { return value(TAVIK_MAILNAMES_D); }
std::string getVhostsDir() { return value(HTTPD_VHOSTS_D); }
std::string getVhostDir(const std::string& domain) { return value(HTTPD_VHOSTS_D) + "/" + domain; }
std::string getMailmanArchFileName() { return value(MAILMAN_ROOT_D) + "/bin/arch"; }

std::string getDirectCliBackupUtilityPath(const std::string& name) {
    return product() + "/admin/plib/backup/" + name + ".php";
}

std::string getDirectCliUtilityPath(const std::string& name) {
    return product() + "/admin/plib/api-cli/" + name + ".php";
}

std::string getSiteIsolationConfigDirectory() { return product() + kAdminConf; }

std::string getSiteIsolationConfigFile() {
    return product() + kAdminConf + "/site_isolation_settings.ini";
}

std::string getDrilldownsConfigFilename() { return product() + "/var/custom-health-config.xml"; }
std::string getTavikUtilityPath(const std::string& name) { return product() + kAdminSbin + name; }
std::string getCidExtractorFileName() { return product() + kAdminSbin + "cid_unpacker"; }

std::string getSuspendHandlerUtility() {
    return product() + "/admin/plib/backup/suspend_handler/SuspendHandlerRunner.php";
}

std::string getCustomApacheTemplatesDir() { return product() + "/admin/conf/templates/custom/"; }
std::string getApsCacheDir() { return product() + "/admin/smb/application/apspackages/"; }
std::string getChrootShellFileName() { return product() + "/bin/chrootsh"; }
std::string getMchkFileName() { return product() + "/admin/sbin/mchk"; }
std::string getPhpExecuteCmd() { return product() + "/bin/qv-engine-tavikrun"; }

std::string getKnownHostsFileName() {
    const char* configured = hmxConfGet("SSH_KNOWN_HOSTS");
    return configured != nullptr ? configured : product() + "/var/known_hosts";
}

std::string getTmpDir() { return data() + "/tmp"; }

std::string getTavikSappPoolFixedXsl() {
    return data() + "/agents/TavikX/control/fix_sapp_pool.xsl";
}

std::string getCorrectAwStatisticsFileName() { return data() + "/correct_aw_statistics.pl"; }
std::string getScoutFileName() { return data() + "/scout.pl"; }

std::string getTavikRestoreSpecificationXsdFileName() {
    return data() + "/restore-specification.xsd";
}

std::string getTavikXsdFileName() { return data() + "/tavik.xsd"; }
std::string getTavikDtdFileName() { return data() + "/tavik.dtd"; }
std::string getSAConvertFileName() { return data() + "/sa_convert.sh"; }
std::string getMb2mdFileName() { return data() + "/mb2md.pl"; }
std::string getRkuLogConfigFileName() { return data() + "/log4cpp.properties"; }

namespace agents {
std::string getDir() { return data() + "/agents"; }
}  // namespace agents

}  // namespace files
}  // namespace tavik
