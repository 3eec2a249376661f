#include "commons/secrets.h"

#include <algorithm>
#include <vector>

namespace tavik {
namespace {

std::vector<std::string>& secrets() {
    static std::vector<std::string> all;
    return all;
}

}  // namespace

void registerSecret(const std::string& secret) {
    if (secret.empty()) return;
    auto& all = secrets();
    if (std::find(all.begin(), all.end(), secret) != all.end()) return;
    all.push_back(secret);
    // Longest first, so that a secret containing another one is masked whole.
    std::sort(all.begin(), all.end(),
              [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
}

std::string maskSecrets(const std::string& text) {
    std::string result = text;
    for (const auto& secret : secrets()) {
        for (size_t at = result.find(secret); at != std::string::npos;
             at = result.find(secret, at + 3)) {
            result.replace(at, secret.size(), "***");
        }
    }
    return result;
}

void clearSecrets() { secrets().clear(); }

}  // namespace tavik
