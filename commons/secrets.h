// Passwords that must never reach a log: registered once when they are read. Each place that
// writes one of its own inputs (standard input sent to the source host, the command line) masks
// it there; a last net in every log appender catches long passwords that other text quotes.
#ifndef FERRYGATE_COMMONS_SECRETS_H
#define FERRYGATE_COMMONS_SECRETS_H

#include <string>
#include <vector>

namespace tavik {

// What a masked secret is written as.
extern const char* const kMaskedSecret;

// Remembers `secret` for masking; empty texts are ignored.
void registerSecret(const std::string& secret);
// Whether `text` is exactly one of the registered secrets.
bool isSecret(const std::string& text);
// The shortest secret that the log appenders' net masks (see maskSecrets).
const size_t kNetMinimumLength = 8;

// `text` with every line (up to a line break or the end) that is exactly one of the non-empty
// `secrets` replaced by kMaskedSecret: for a record of standard input, which carries passwords
// as lines of their own.
std::string maskSecretLines(const std::string& text, const std::vector<std::string>& secrets);
// The net of the log appenders: `text` with every whole occurrence of a registered secret of at
// least kNetMinimumLength characters replaced by kMaskedSecret. Whole: a secret that begins
// (ends) with a letter, digit or "_" is not masked where one precedes (follows) it. Shorter
// secrets are left alone: masking "p" everywhere would leave no word of the log readable, and
// the stars would show where the password's letters occur.
std::string maskSecrets(const std::string& text);
// Forgets all secrets (tests only).
void clearSecrets();

}  // namespace tavik

#endif  // FERRYGATE_COMMONS_SECRETS_H
