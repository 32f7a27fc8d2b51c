#include "LegacyKeys.h"

#include <mupdf/fitz.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <utility>

namespace legacy {
namespace {

// The bytes a password is padded with to 32 (PDF 1.7, algorithm 3.2 step a).
const unsigned char passwordPadding[32] = {0x28, 0xbf, 0x4e, 0x5e, 0x4e, 0x75, 0x8a, 0x41, 0x64, 0x00, 0x4e,
                                           0x56, 0xff, 0xfa, 0x01, 0x08, 0x2e, 0x2e, 0x00, 0xb6, 0xd0, 0x68,
                                           0x3e, 0x80, 0x2f, 0x0c, 0xa9, 0xfe, 0x64, 0x53, 0x69, 0x7a};

int keyBytes(const Handler &handler)
{
    return std::clamp(handler.keyLength, 1, 16);
}

// MD5 of the password padded to 32 bytes and of `more`, then (revision 3 and
// later) 50 more rounds over the first `n` bytes.
Key passwordHash(const unsigned char *password, size_t length,
                 std::initializer_list<std::pair<const unsigned char *, size_t>> more, int revision, int n)
{
    unsigned char padded[32];
    length = std::min<size_t>(length, 32);
    std::memcpy(padded, password, length);
    std::memcpy(padded + length, passwordPadding, 32 - length);
    Key out{};
    fz_md5 md5;
    fz_md5_init(&md5);
    fz_md5_update(&md5, padded, 32);
    for (const auto &[data, size] : more)
        fz_md5_update(&md5, data, size);
    fz_md5_final(&md5, out.data());
    if (revision < 3)
        return out;
    for (int i = 0; i < 50; ++i) {
        fz_md5_init(&md5);
        fz_md5_update(&md5, out.data(), size_t(n));
        fz_md5_final(&md5, out.data());
    }
    return out;
}

// RC4 with `key`; from revision 3 on twenty times, the key XORed with the
// round's number, counting up from 0 or down from 19.
void rc4Rounds(const unsigned char *key, int n, int revision, bool countDown, unsigned char *data, size_t length)
{
    const int rounds = revision >= 3 ? 20 : 1;
    unsigned char roundKey[16];
    fz_arc4 arc4;
    for (int round = 0; round < rounds; ++round) {
        const int x = countDown ? rounds - 1 - round : round;
        for (int i = 0; i < n; ++i)
            roundKey[i] = uint8_t(key[i] ^ x);
        fz_arc4_init(&arc4, roundKey, size_t(n));
        fz_arc4_encrypt(&arc4, data, data, length);
    }
}

const unsigned char *idBytes(const Handler &handler)
{
    return reinterpret_cast<const unsigned char *>(handler.id.data());
}

} // namespace

Key fileKey(const Handler &handler, const unsigned char *password, size_t length)
{
    const uint32_t p = handler.permissions;
    const unsigned char permissions[4] = {uint8_t(p), uint8_t(p >> 8), uint8_t(p >> 16), uint8_t(p >> 24)};
    const unsigned char unencryptedMetadata[4] = {0xff, 0xff, 0xff, 0xff};
    const bool plainMetadata = handler.revision >= 4 && !handler.encryptMetadata;
    return passwordHash(password, length,
                        {{handler.owner.data(), 32},
                         {permissions, 4},
                         {idBytes(handler), handler.id.size()},
                         {unencryptedMetadata, plainMetadata ? 4 : 0}},
                        handler.revision, keyBytes(handler));
}

bool keyMatches(const Handler &handler, const Key &key)
{
    unsigned char check[32];
    size_t compared = 32;
    if (handler.revision == 2) {
        std::memcpy(check, passwordPadding, 32);
    } else {
        fz_md5 md5;
        fz_md5_init(&md5);
        fz_md5_update(&md5, passwordPadding, 32);
        fz_md5_update(&md5, idBytes(handler), handler.id.size());
        fz_md5_final(&md5, check);
        compared = 16;
    }
    rc4Rounds(key.data(), keyBytes(handler), handler.revision, false, check, compared);
    return std::memcmp(check, handler.user.data(), compared) == 0;
}

std::array<unsigned char, 32> userPasswordFromOwner(const Handler &handler, const unsigned char *password, size_t length)
{
    const Key key = passwordHash(password, length, {}, handler.revision, keyBytes(handler));
    std::array<unsigned char, 32> user = handler.owner;
    rc4Rounds(key.data(), keyBytes(handler), handler.revision, true, user.data(), user.size());
    return user;
}

} // namespace legacy
