// Internal to the engine: the older standard security handler (revisions 2
// to 4, MD5 and RC4) worked with a password's bytes as they are, for
// passwords MuPDF would first squeeze into PDFDocEncoding.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace legacy {

// What the file's encryption dictionary says about the handler.
struct Handler {
    int revision = 2;
    int keyLength = 5;                     // bytes, at most 16
    std::array<unsigned char, 32> owner{}; // /O
    std::array<unsigned char, 32> user{};  // /U
    uint32_t permissions = 0;              // /P
    std::string id;                        // the first string of the trailer's /ID
    bool encryptMetadata = true;
};

using Key = std::array<unsigned char, 16>;

// The file key a user password gives (PDF 1.7, algorithm 3.2); its first
// `keyLength` bytes count.
Key fileKey(const Handler &handler, const unsigned char *password, size_t length);
// Whether a file key is the one /U was made with (algorithms 3.4 and 3.5).
bool keyMatches(const Handler &handler, const Key &key);
// The user password an owner password unwraps from /O (algorithm 3.7).
std::array<unsigned char, 32> userPasswordFromOwner(const Handler &handler, const unsigned char *password, size_t length);

} // namespace legacy
