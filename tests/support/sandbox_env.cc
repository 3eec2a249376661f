#include "support/sandbox_env.h"

#include <pwd.h>

#include <boost/filesystem.hpp>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "commons/checksum.h"

namespace tavik {
namespace testing {

bool inSandbox() {
    const char* flag = getenv("FERRYGATE_SANDBOXED");
    return flag != nullptr && std::string(flag) == "1";
}

void writeTextFile(const std::string& path, const std::string& text) {
    boost::filesystem::create_directories(boost::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    if (!out.flush()) throw std::runtime_error("cannot write " + path);
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::set<std::string> listDir(const std::string& dir) {
    std::set<std::string> names;
    for (const auto& entry : boost::filesystem::directory_iterator(dir))
        names.insert(entry.path().filename().string());
    return names;
}

std::string md5OfFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return countMd5Sum(in);
}

bool addSystemAccount(const std::string& name) {
    if (!inSandbox()) return false;
    if (getpwnam(name.c_str()) != nullptr) return true;
    const std::string command = "useradd -M -r " + name + " >/dev/null 2>&1";
    return system(command.c_str()) == 0;
}

ScratchDir::ScratchDir() {
    const std::string pattern = "/tmp/ferrygate-test.XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = name.data();
}

ScratchDir::~ScratchDir() {
    boost::system::error_code ignored;
    boost::filesystem::remove_all(path_, ignored);
}

}  // namespace testing
}  // namespace tavik
