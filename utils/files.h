// Fixed paths on the destination host, derived from the product configuration (loaded on first
// use). Each getter returns a new string.
#ifndef FERRYGATE_UTILS_FILES_H
#define FERRYGATE_UTILS_FILES_H

#include <string>

namespace tavik {
namespace files {

std::string getRcDir();
// A bare name: the dumping agent's status file on the source host, and its copy in the session.
std::string getRemoteDumpingStatusFileName();
std::string getMailmanVarDir();
std::string getPgsqlBinDir();
std::string getMysqlBinDir();
std::string getMailDir();
std::string getVhostsDir();
std::string getVhostDir(const std::string& domain);
std::string getMailmanArchFileName();
std::string getDirectCliBackupUtilityPath(const std::string& name);
std::string getDirectCliUtilityPath(const std::string& name);
std::string getSiteIsolationConfigDirectory();
std::string getSiteIsolationConfigFile();
std::string getDrilldownsConfigFilename();
std::string getTavikUtilityPath(const std::string& name);
std::string getCidExtractorFileName();
std::string getSuspendHandlerUtility();
std::string getCustomApacheTemplatesDir();
std::string getApsCacheDir();
std::string getChrootShellFileName();
std::string getMchkFileName();
std::string getPhpExecuteCmd();
// The host keys of the source hosts seen so far, in OpenSSH's known_hosts format:
// SSH_KNOWN_HOSTS of the product configuration, by default product root + "/var/known_hosts".
std::string getKnownHostsFileName();

// Below the program's data directory, product root + "/RKU".
std::string getTmpDir();
std::string getTavikSappPoolFixedXsl();
std::string getCorrectAwStatisticsFileName();
std::string getScoutFileName();
std::string getTavikRestoreSpecificationXsdFileName();
std::string getTavikXsdFileName();
std::string getTavikDtdFileName();
std::string getSAConvertFileName();
std::string getMb2mdFileName();
std::string getRkuLogConfigFileName();

namespace agents {
// Where the migration agents live on the destination host.
std::string getDir();
}  // namespace agents

}  // namespace files
}  // namespace tavik

#endif  // FERRYGATE_UTILS_FILES_H
