#include "commons/exceptions.h"

#include <gtest/gtest.h>

#include <string>

namespace tavik {
namespace {

// Every kind formatted once with as many arguments as its format has placeholders: a format
// with a typo in its placeholders fails here instead of at a raise site in the field.
template <void (*Tag)()>
void expectFormats(int placeholders) {
    Exc<Tag> e("ctx", "file", 1);
    for (int i = 1; i <= placeholders; ++i) e % ("a" + std::to_string(i));
    EXPECT_NO_THROW(e.message()) << e.code();
    for (int i = 1; i <= placeholders; ++i)
        EXPECT_NE(std::string::npos, e.message().find("a" + std::to_string(i))) << e.code();
}

int countPlaceholders(const std::string& format) {
    int highest = 0;
    for (size_t i = 0; i + 2 < format.size(); ++i)
        if (format[i] == '%' && isdigit(static_cast<unsigned char>(format[i + 1])))
            highest = std::max(highest, format[i + 1] - '0');
    return highest;
}

TEST(ExceptionModel, EveryKindFormatsWithItsOwnArgumentCount) {
#define TAVIK_CHECK_KIND(tag, code, format) expectFormats<&tag>(countPlaceholders(format));
    TAVIK_EXCEPTION_KINDS(TAVIK_CHECK_KIND)
#undef TAVIK_CHECK_KIND
}

}  // namespace
}  // namespace tavik
