#include "view/png.h"

#include <array>
#include <cstdint>

namespace kvx::view {

namespace {

uint32_t crc32(const std::string& s, std::size_t from) {
    static const std::array<uint32_t, 256> table = [] {
        std::array<uint32_t, 256> t{};
        for (uint32_t n = 0; n < 256; ++n) {
            uint32_t c = n;
            for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
            t[n] = c;
        }
        return t;
    }();
    uint32_t c = 0xFFFFFFFFu;
    for (std::size_t i = from; i < s.size(); ++i) c = table[(c ^ static_cast<uint8_t>(s[i])) & 0xFF] ^ (c >> 8);
    return c ^ 0xFFFFFFFFu;
}

void put_be32(std::string& s, uint32_t v) {
    for (int k = 3; k >= 0; --k) s.push_back(static_cast<char>((v >> (8 * k)) & 0xFF));
}

// Length, type, data, and the CRC over type and data.
void chunk(std::string& png, const char type[4], const std::string& data) {
    put_be32(png, static_cast<uint32_t>(data.size()));
    const std::size_t from = png.size();
    png.append(type, 4);
    png += data;
    put_be32(png, crc32(png, from));
}

// zlib stream of stored (uncompressed) deflate blocks of at most 65535 bytes.
std::string zlib_stored(const std::string& raw) {
    std::string z = "\x78\x01";
    std::size_t pos = 0;
    do {
        const std::size_t n = raw.size() - pos < 65535 ? raw.size() - pos : 65535;
        const bool last = pos + n == raw.size();
        z.push_back(last ? 1 : 0);
        z.push_back(static_cast<char>(n & 0xFF));
        z.push_back(static_cast<char>(n >> 8));
        z.push_back(static_cast<char>(~n & 0xFF));
        z.push_back(static_cast<char>((~n >> 8) & 0xFF));
        z.append(raw, pos, n);
        pos += n;
    } while (pos < raw.size());
    uint32_t a = 1, b = 0;  // Adler-32
    for (char ch : raw) {
        a = (a + static_cast<uint8_t>(ch)) % 65521;
        b = (b + a) % 65521;
    }
    put_be32(z, b << 16 | a);
    return z;
}

}  // namespace

std::string png_rgb(int width, int height, const std::vector<Rgb>& pixels) {
    std::string raw;
    raw.reserve(static_cast<std::size_t>(height) * (3 * static_cast<std::size_t>(width) + 1));
    for (int y = 0; y < height; ++y) {
        raw.push_back(0);  // filter: none
        for (int x = 0; x < width; ++x) {
            const Rgb& c = pixels[static_cast<std::size_t>(y) * width + x];
            raw.push_back(static_cast<char>(c.r));
            raw.push_back(static_cast<char>(c.g));
            raw.push_back(static_cast<char>(c.b));
        }
    }
    std::string png = "\x89PNG\r\n\x1a\n";
    std::string ihdr;
    put_be32(ihdr, static_cast<uint32_t>(width));
    put_be32(ihdr, static_cast<uint32_t>(height));
    ihdr += std::string("\x08\x02\x00\x00\x00", 5);  // 8 bits, RGB, deflate, filter 0, no interlace
    chunk(png, "IHDR", ihdr);
    chunk(png, "IDAT", zlib_stored(raw));
    chunk(png, "IEND", "");
    return png;
}

std::string base64(const std::string& bytes) {
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    std::size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        const uint32_t v = static_cast<uint8_t>(bytes[i]) << 16 | static_cast<uint8_t>(bytes[i + 1]) << 8 |
                           static_cast<uint8_t>(bytes[i + 2]);
        for (int k = 3; k >= 0; --k) out.push_back(kAlphabet[(v >> (6 * k)) & 63]);
    }
    if (i < bytes.size()) {
        uint32_t v = static_cast<uint8_t>(bytes[i]) << 16;
        if (i + 1 < bytes.size()) v |= static_cast<uint8_t>(bytes[i + 1]) << 8;
        out.push_back(kAlphabet[(v >> 18) & 63]);
        out.push_back(kAlphabet[(v >> 12) & 63]);
        out.push_back(i + 1 < bytes.size() ? kAlphabet[(v >> 6) & 63] : '=');
        out.push_back('=');
    }
    return out;
}

}  // namespace kvx::view
