#include "qrcode.h"

#include <qrencode.h>

#include <memory>

namespace gateway {

namespace {

constexpr int quietZone = 2;

struct Deleter
{
    void operator()(QRcode *code) const { QRcode_free(code); }
};

bool isDark(const QRcode &code, int x, int y)
{
    const bool isInside = x >= 0 && y >= 0 && x < code.width && y < code.width;
    return isInside && (code.data[y * code.width + x] & 1U) != 0;
}

/// Two modules, one above the other.
const char *blockOf(bool upper, bool lower)
{
    if (upper && lower)
        return "\u2588";
    if (upper)
        return "\u2580";
    return lower ? "\u2584" : " ";
}

} // namespace

std::string qrCodeOf(const std::string &text)
{
    const std::unique_ptr<QRcode, Deleter> code(
        QRcode_encodeString8bit(text.c_str(), 0, QR_ECLEVEL_M));
    if (!code)
        return {};
    std::string lines;
    for (int y = -quietZone; y < code->width + quietZone; y += 2) {
        lines += "\033[30;107m";
        for (int x = -quietZone; x < code->width + quietZone; ++x)
            lines += blockOf(isDark(*code, x, y), isDark(*code, x, y + 1));
        lines += "\033[0m\n";
    }
    return lines;
}

} // namespace gateway
