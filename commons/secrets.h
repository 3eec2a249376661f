// Passwords that must never reach a log: registered once when they are read, masked in every
// line written to the debug log.
#ifndef FERRYGATE_COMMONS_SECRETS_H
#define FERRYGATE_COMMONS_SECRETS_H

#include <string>

namespace tavik {

// Remembers `secret` for masking; empty texts are ignored.
void registerSecret(const std::string& secret);
// `text` with every occurrence of every registered secret replaced by "***".
std::string maskSecrets(const std::string& text);
// Forgets all secrets (tests only).
void clearSecrets();

}  // namespace tavik

#endif  // FERRYGATE_COMMONS_SECRETS_H
