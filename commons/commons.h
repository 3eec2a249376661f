// File-system helpers shared by the session, the XML layer and content retrieval: directories
// made with owner and mode, input-file checks and uniquely named temporary files.
#ifndef FERRYGATE_COMMONS_COMMONS_H
#define FERRYGATE_COMMONS_COMMONS_H

#include <boost/filesystem/path.hpp>
#include <string>
#include <vector>

namespace tavik {

// True when `file` is a non-empty name of an existing regular file. The flag is not consulted.
bool check_input_file(const char* file, bool = false);

// Creates `path` and its missing parents with `mode` (the umask applies), each then given to
// `owner`:`group`. An existing path of any type is left untouched. Reports nothing: callers that
// need the directory find out when they use it. `path` is modified during the call and restored.
void make_dir(char* path, unsigned owner, unsigned group, unsigned mode);
void make_dir(const std::string& path, unsigned owner, unsigned group, unsigned mode);
void make_dir(const boost::filesystem::path& path, unsigned owner, unsigned group, unsigned mode);

// What a path is, false when it cannot be found out: a name too long for the system or a
// directory that may not be searched is no directory to use, never a reason to abort.
bool isDirectory(const boost::filesystem::path& path);
bool isRegularFile(const boost::filesystem::path& path);
bool pathExists(const boost::filesystem::path& path);

// Seven characters of [a-zA-Z0-9] from rand(); the caller seeds the generator.
std::string randomPasswd();

// Fills `buffer` with the zero-terminated template `directory`/`prefix`XXXXXX. An empty
// `directory` means DUMP_TMP_D of the product configuration, else files::getTmpDir().
void initTempName(std::vector<char>& buffer, const std::string& directory,
                  const std::string& prefix);

// Creates a new directory (mode 0700) named after the template and returns its path; throws
// CantCreateTempDir.
std::string RKU_makeTempFileDirectory(const std::string& directory, const std::string& prefix);

// Creates a new empty file (mode 0600) named after the template and returns its path, already
// closed: the caller reopens it by name. Throws CantCreateTempFile.
std::string RKU_getTempFileName(const std::string& directory, const std::string& prefix);

}  // namespace tavik

#endif  // FERRYGATE_COMMONS_COMMONS_H
