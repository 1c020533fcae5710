// corpus.cpp - a deterministic mixed corpus for the engine benchmarks.
#include "corpus.h"

#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <fstream>

namespace benchengines {

namespace {

struct Rng {
    uint64_t s;
    uint32_t Next() {
        s ^= s << 13;
        s ^= s >> 7;
        s ^= s << 17;
        return static_cast<uint32_t>(s >> 11);
    }
    size_t Range(size_t lo, size_t hi) { return lo + Next() % (hi - lo + 1); }
};

std::vector<unsigned char> Text(Rng& r, size_t size) {
    static const char* const kWords[] = {"the",     "scan",     "engine",  "archive",   "report",
                                         "server",  "request",  "content", "policy",    "limit",
                                         "object",  "memory",   "thread",  "signature", "database",
                                         "handle",  "instance", "profile", "group",     "provider",
                                         "invoice", "customer", "order",   "shipping",  "total"};
    std::vector<unsigned char> out;
    out.reserve(size + 16);
    while (out.size() < size) {
        const char* w = kWords[r.Next() % (sizeof kWords / sizeof kWords[0])];
        out.insert(out.end(), w, w + std::strlen(w));
        out.push_back(r.Next() % 12 == 0 ? '\n' : ' ');
    }
    out.resize(size);
    return out;
}

std::vector<unsigned char> Binary(Rng& r, size_t size) {
    std::vector<unsigned char> out(size);
    for (auto& b : out) b = static_cast<unsigned char>(r.Next());
    return out;
}

void Put16(std::vector<unsigned char>& o, uint32_t v) {
    o.push_back(static_cast<unsigned char>(v));
    o.push_back(static_cast<unsigned char>(v >> 8));
}
void Put32(std::vector<unsigned char>& o, uint32_t v) {
    Put16(o, v & 0xffff);
    Put16(o, v >> 16);
}

std::vector<unsigned char> Zip(Rng& r, int members, size_t memberSize) {
    std::vector<unsigned char> out, central;
    for (int i = 0; i < members; ++i) {
        std::vector<unsigned char> data = Text(r, memberSize);
        std::string name = "part" + std::to_string(i) + ".txt";
        uLongf packedSize = compressBound(static_cast<uLong>(data.size()));
        std::vector<unsigned char> packed(packedSize);
        z_stream z;
        std::memset(&z, 0, sizeof z);
        deflateInit2(&z, Z_BEST_SPEED, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
        z.next_in = data.data();
        z.avail_in = static_cast<uInt>(data.size());
        z.next_out = packed.data();
        z.avail_out = static_cast<uInt>(packed.size());
        deflate(&z, Z_FINISH);
        packed.resize(z.total_out);
        deflateEnd(&z);
        uint32_t crc = static_cast<uint32_t>(crc32(0, data.data(), static_cast<uInt>(data.size())));
        uint32_t offset = static_cast<uint32_t>(out.size());
        auto header = [&](std::vector<unsigned char>& o, bool c) {
            Put32(o, c ? 0x02014b50u : 0x04034b50u);
            if (c) Put16(o, 20);
            Put16(o, 20);
            Put16(o, 0);
            Put16(o, 8);
            Put16(o, 0);
            Put16(o, 0x21);
            Put32(o, crc);
            Put32(o, static_cast<uint32_t>(packed.size()));
            Put32(o, static_cast<uint32_t>(data.size()));
            Put16(o, static_cast<uint32_t>(name.size()));
            Put16(o, 0);
            if (c) {
                Put16(o, 0);
                Put16(o, 0);
                Put16(o, 0);
                Put32(o, 0);
                Put32(o, offset);
            }
            o.insert(o.end(), name.begin(), name.end());
        };
        header(out, false);
        out.insert(out.end(), packed.begin(), packed.end());
        header(central, true);
    }
    uint32_t at = static_cast<uint32_t>(out.size());
    out.insert(out.end(), central.begin(), central.end());
    Put32(out, 0x06054b50u);
    Put16(out, 0);
    Put16(out, 0);
    Put16(out, static_cast<uint32_t>(members));
    Put16(out, static_cast<uint32_t>(members));
    Put32(out, static_cast<uint32_t>(central.size()));
    Put32(out, at);
    Put16(out, 0);
    return out;
}

}  // namespace

std::vector<Object> MakeCorpus(size_t count, unsigned seed) {
    Rng r{0x9e3779b97f4a7c15ull ^ seed};
    std::vector<Object> corpus;
    for (size_t i = 0; i < count; ++i) {
        Object o;
        uint32_t kind = i % 10;
        if (kind < 4) {
            o.name = "doc" + std::to_string(i) + ".txt";
            o.bytes = Text(r, r.Range(2 * 1024, 64 * 1024));
        } else if (kind < 7) {
            o.name = "data" + std::to_string(i) + ".bin";
            o.bytes = Binary(r, r.Range(16 * 1024, 256 * 1024));
        } else if (kind < 9) {
            o.name = "pack" + std::to_string(i) + ".zip";
            o.bytes = Zip(r, static_cast<int>(r.Range(2, 4)), r.Range(8 * 1024, 64 * 1024));
        } else {
            o.name = "log" + std::to_string(i) + ".txt";
            o.bytes = Text(r, r.Range(512 * 1024, 1024 * 1024));
        }
        corpus.push_back(std::move(o));
    }
    return corpus;
}

size_t TotalBytes(const std::vector<Object>& corpus) {
    size_t n = 0;
    for (const Object& o : corpus) n += o.bytes.size();
    return n;
}

std::vector<std::string> WriteCorpus(const std::vector<Object>& corpus, const std::string& dir) {
    std::vector<std::string> paths;
    for (const Object& o : corpus) {
        std::string p = dir + "/" + o.name;
        std::ofstream f(p, std::ios::binary | std::ios::trunc);
        f.write(reinterpret_cast<const char*>(o.bytes.data()),
                static_cast<std::streamsize>(o.bytes.size()));
        paths.push_back(p);
    }
    return paths;
}

}  // namespace benchengines
