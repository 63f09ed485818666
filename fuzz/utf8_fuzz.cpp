// Feeds arbitrary bytes to the in-place UTF-8 checker and normaliser, and to the 8-bit
// widener, and checks what must hold for any input.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "plat/Exception.h"
#include "plat/Utf8.h"

namespace {

void require(bool condition) {
    if (!condition) std::abort();
}

// Independent reading of well-formed text: shortest form only, no surrogates, nothing above
// U+10FFFF. Stores the code points' broad-refusal verdict in refused.
bool strictlyWellFormed(const std::string& text, bool& refused) {
    refused = false;
    size_t i = 0;
    while (i < text.size()) {
        unsigned char lead = static_cast<unsigned char>(text[i]);
        size_t n = lead < 0x80                    ? 1
                   : lead >= 0xC2 && lead <= 0xDF ? 2
                   : lead >= 0xE0 && lead <= 0xEF ? 3
                   : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                  : 0;
        if (n == 0 || i + n > text.size()) return false;
        uint32_t cp = n == 1 ? lead : lead & (0x7Fu >> n);
        for (size_t k = 1; k < n; ++k) {
            unsigned char c = static_cast<unsigned char>(text[i + k]);
            if ((c & 0xC0) != 0x80) return false;
            cp = cp << 6 | (c & 0x3F);
        }
        static const uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < kMin[n] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        if ((cp & 0xD800) == 0xD800) refused = true;
        i += n;
    }
    return true;
}

void checkNormalizer(const uint8_t* data, size_t size) {
    std::string input(reinterpret_cast<const char*>(data), size);
    input.resize(std::strlen(input.c_str()));  // the checker's view: up to the first NUL
    // The guard after the NUL shows whether the checker wrote past the end of the text.
    std::string buffer = input + '\0' + '#';
    bool valid;
    try {
        valid = plat::checkAndNormalizeUtf8(&buffer[0]);
    } catch (const plat::Exception& e) {
        require(std::strcmp(e.str(), "Unicode out of range") == 0);
        // Only a four-byte lead can carry a value that large.
        bool fourByteLead = false;
        for (char c : input) fourByteLead |= static_cast<unsigned char>(c) >= 0xF4;
        require(fourByteLead);
        return;
    }
    require(buffer[input.size() + 1] == '#');
    std::string output(buffer.c_str());
    require(output.size() <= input.size());

    bool refused;
    if (strictlyWellFormed(input, refused)) {
        // Well-formed text is accepted untouched unless it holds a refused value.
        require(valid == !refused);
        require(!valid || output == input);
    }
    if (!valid) return;

    require(strictlyWellFormed(output, refused) && !refused);
    std::string again = output;
    require(plat::checkAndNormalizeUtf8(&again[0]));
    require(again == output);
}

void checkWidener(const uint8_t* data, size_t size) {
    const char* begin = reinterpret_cast<const char*>(data);
    plat::OwnedText wide = plat::widenToUtf8(begin, begin + size);
    size_t used = 0;
    size_t high = 0;
    while (used < size && begin[used] != '\0')
        high += static_cast<unsigned char>(begin[used++]) >> 7;
    require(wide.length == used + high);
    require(std::strlen(wide.text.get()) == wide.length);
    // Code points 0..255 are never refused and always in shortest form.
    std::string copy(wide.text.get(), wide.length);
    require(plat::checkAndNormalizeUtf8(&copy[0]));
    require(copy == std::string(wide.text.get(), wide.length));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    checkNormalizer(data, size);
    checkWidener(data, size);
    return 0;
}
