#include "printable.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <iterator>
#include <utility>

namespace dmcat {

namespace {

using Range = std::pair<char32_t, char32_t>;

// The general categories Cc, Cf, Cs, Zl and Zp of Unicode 15: UnicodeData.txt.
constexpr auto kUnprintable = std::to_array<Range>({
    {0x0000, 0x001f},   {0x007f, 0x009f},   {0x00ad, 0x00ad},   {0x0600, 0x0605},
    {0x061c, 0x061c},   {0x06dd, 0x06dd},   {0x070f, 0x070f},   {0x0890, 0x0891},
    {0x08e2, 0x08e2},   {0x180e, 0x180e},   {0x200b, 0x200f},   {0x2028, 0x202e},
    {0x2060, 0x206f},   {0xd800, 0xdfff},   {0xfeff, 0xfeff},   {0xfff9, 0xfffb},
    {0x110bd, 0x110bd}, {0x110cd, 0x110cd}, {0x13430, 0x1343f}, {0x1bca0, 0x1bca3},
    {0x1d173, 0x1d17a}, {0xe0000, 0xe007f},
});

bool is_printable(char32_t character) {
    const auto* const range =
        std::find_if(kUnprintable.begin(), kUnprintable.end(),
                     [=](const Range& candidate) { return character <= candidate.second; });
    return range == kUnprintable.end() || character < range->first;
}

struct Decoded {
    char32_t character;
    std::size_t len; // 0 when the bytes are no UTF-8
};

// The first character of text that is not empty. utf-8(7): the shortest form alone counts.
Decoded decode(std::string_view bytes) {
    constexpr auto kLeast = std::to_array<char32_t>({0, 0, 0x80, 0x800, 0x10000});
    const auto first = static_cast<unsigned char>(bytes[0]);
    const std::size_t len = first < 0x80   ? 1
                            : first < 0xc0 ? 0
                            : first < 0xe0 ? 2
                            : first < 0xf0 ? 3
                            : first < 0xf8 ? 4
                                           : 0;
    if (len == 0 || len > bytes.size())
        return {0, 0};
    if (len == 1)
        return {first, 1};
    char32_t character = first & (0x7fU >> len);
    for (const char byte : bytes.substr(1, len - 1)) {
        const auto next = static_cast<unsigned char>(byte);
        if ((next & 0xc0U) != 0x80)
            return {0, 0};
        character = character << 6 | (next & 0x3fU);
    }
    const bool valid = character >= kLeast[len] && character <= 0x10ffff &&
                       (character < 0xd800 || character > 0xdfff);
    return {character, valid ? len : 0};
}

std::string escape(const char* format, std::uint32_t number) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), format, static_cast<unsigned>(number));
    return text.data();
}

// Above 16 bits as two surrogates (RFC 8259, section 7).
std::string escape(char32_t character) {
    if (character < 0x10000)
        return escape("\\u%04x", character);
    const char32_t offset = character - 0x10000;
    return escape("\\u%04x", 0xd800 + (offset >> 10)) +
           escape("\\u%04x", 0xdc00 + (offset & 0x3ff));
}

} // namespace

std::string printable(std::string_view bytes, Lines lines) {
    std::string text;
    while (!bytes.empty()) {
        const auto [character, len] = decode(bytes);
        const bool space = character == '\n' || character == '\t';
        if (len == 0)
            text += escape("\\x%02x", static_cast<unsigned char>(bytes[0]));
        else if (is_printable(character) || (space && lines == Lines::kept))
            text += bytes.substr(0, len);
        else
            text += escape(character);
        bytes.remove_prefix(std::max<std::size_t>(len, 1));
    }
    return text;
}

} // namespace dmcat
