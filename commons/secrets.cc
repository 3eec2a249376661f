#include "commons/secrets.h"

#include <algorithm>
#include <cctype>
#include <vector>

namespace tavik {

const char* const kMaskedSecret = "***";

namespace {

std::vector<std::string>& secrets() {
    static std::vector<std::string> all;
    return all;
}

bool isWordChar(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

// Whether `secret`, found in `text` at `at`, stands alone rather than inside a longer word.
bool isWhole(const std::string& text, size_t at, const std::string& secret) {
    const size_t end = at + secret.size();
    const bool startFree = !isWordChar(secret.front()) || at == 0 || !isWordChar(text[at - 1]);
    const bool endFree = !isWordChar(secret.back()) || end == text.size() || !isWordChar(text[end]);
    return startFree && endFree;
}

}  // namespace

void registerSecret(const std::string& secret) {
    if (secret.empty() || isSecret(secret)) return;
    auto& all = secrets();
    all.push_back(secret);
    // Longest first, so that a secret containing another one is masked whole.
    std::sort(all.begin(), all.end(),
              [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
}

bool isSecret(const std::string& text) {
    const auto& all = secrets();
    return std::find(all.begin(), all.end(), text) != all.end();
}

std::string maskSecretLines(const std::string& text, const std::vector<std::string>& secrets) {
    std::string result;
    for (size_t start = 0; start < text.size();) {
        const size_t newline = text.find('\n', start);
        const size_t end = newline == std::string::npos ? text.size() : newline;
        const std::string line = text.substr(start, end - start);
        const bool secret =
            !line.empty() && std::find(secrets.begin(), secrets.end(), line) != secrets.end();
        result += secret ? kMaskedSecret : line;
        if (newline != std::string::npos) result += '\n';
        start = end + 1;
    }
    return result;
}

std::string maskSecrets(const std::string& text) {
    std::string result = text;
    for (const auto& secret : secrets()) {
        if (secret.size() < kNetMinimumLength) continue;
        for (size_t at = result.find(secret); at != std::string::npos;) {
            if (isWhole(result, at, secret)) {
                result.replace(at, secret.size(), kMaskedSecret);
                at = result.find(secret, at + std::char_traits<char>::length(kMaskedSecret));
            } else {
                at = result.find(secret, at + 1);
            }
        }
    }
    return result;
}

void clearSecrets() { secrets().clear(); }

}  // namespace tavik
