/*
 * yara_md5.h - MD5 (RFC 1321) of a byte range: the value of the "md5"
 * external variable that rules compare with, and the hash that names a rules
 * directory's sources. Not used for anything that needs collision resistance
 * against an attacker.
 */
#ifndef KORMO_YARA_MD5_H
#define KORMO_YARA_MD5_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace yarapel {

class Md5 {
  public:
    Md5();
    void Update(const void* data, size_t length);
    // The digest as 32 lower-case hex digits; the object is spent afterwards.
    std::string HexDigest();

  private:
    void Block(const unsigned char* p);

    uint32_t state_[4];
    uint64_t length_ = 0;  // bytes so far
    unsigned char buffer_[64];
};

// MD5 of a range, as 32 lower-case hex digits.
std::string Md5Hex(const void* data, size_t length);

}  // namespace yarapel

#endif
