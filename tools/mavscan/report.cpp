// report.cpp - output of mavscan.
#include "report.h"

#include <cstdio>

namespace mavscan {

namespace {

// Length of the valid UTF-8 sequence at s[i], or 0.
size_t utf8Len(const std::string& s, size_t i) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    size_t n = c < 0x80                   ? 1
               : (c >= 0xC2 && c <= 0xDF) ? 2
               : (c >= 0xE0 && c <= 0xEF) ? 3
               : (c >= 0xF0 && c <= 0xF4) ? 4
                                          : 0;
    if (n == 0 || i + n > s.size()) return 0;
    for (size_t k = 1; k < n; ++k) {
        if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return 0;
    }
    unsigned char c1 = static_cast<unsigned char>(n > 1 ? s[i + 1] : 0);
    if ((c == 0xE0 && c1 < 0xA0) || (c == 0xED && c1 > 0x9F) || (c == 0xF0 && c1 < 0x90) ||
        (c == 0xF4 && c1 > 0x8F)) {
        return 0;
    }
    return n;
}

}  // namespace

std::string jsonString(const std::string& s) {
    std::string out = "\"";
    char esc[8];
    for (size_t i = 0; i < s.size();) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
            ++i;
        } else if (c < 0x20) {
            std::snprintf(esc, sizeof esc, "\\u%04x", c);
            out += esc;
            ++i;
        } else if (c < 0x80) {
            out += static_cast<char>(c);
            ++i;
        } else if (size_t n = utf8Len(s, i)) {
            out.append(s, i, n);
            i += n;
        } else {
            std::snprintf(esc, sizeof esc, "\\u%04x", c);
            out += esc;
            ++i;
        }
    }
    return out + "\"";
}

Report::Report(bool json, bool quiet, bool progress)
    : json_(json), quiet_(quiet), progress_(progress), start_(std::chrono::steady_clock::now()) {}

// Object lines go to standard output; the progress line on standard error is
// taken away first and drawn again below them.
void Report::emit(const std::string& line) {
    std::lock_guard<std::mutex> lock(mu_);
    if (progress_ && !progressText_.empty()) std::fputs("\r\033[K", stderr);
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
    if (progress_ && !progressText_.empty()) {
        std::fputs(progressText_.c_str(), stderr);
        std::fflush(stderr);
    }
}

void Report::object(const std::string& path, const Result& r) {
    files_++;
    bytes_ += r.size;
    const char* verdict = r.rc == MAV_OK ? "OK" : r.rc < 0 ? "FOUND" : "ERROR";
    if (r.rc < 0) found_++;
    if (r.rc > 0) errors_++;
    if (json_) {
        if (quiet_ && r.rc == MAV_OK) return;
        std::string j = "{\"path\":" + jsonString(path) + ",\"verdict\":\"" + verdict +
                        "\",\"code\":\"" + MavErrorName(r.rc) + "\",\"infections\":[";
        for (size_t i = 0; i < r.infections.size(); ++i) {
            j += (i ? "," : "") + std::string("{\"name\":") + jsonString(r.infections[i].name) +
                 ",\"object\":" + jsonString(r.infections[i].object) + "}";
        }
        j += "],\"scan_errors\":[";
        for (size_t i = 0; i < r.errors.size(); ++i) {
            j += (i ? "," : "") + std::string("{\"code\":") + std::to_string(r.errors[i].code) +
                 ",\"text\":" + jsonString(r.errors[i].text) +
                 ",\"object\":" + jsonString(r.errors[i].object) + "}";
        }
        j += "]";
        if (r.rc > 0) j += ",\"error\":" + jsonString(r.message);
        j += ",\"size\":" + std::to_string(r.size) + "}\n";
        emit(j);
        return;
    }
    if (r.rc == MAV_OK) {
        if (!quiet_) emit(path + ": OK\n");
    } else if (r.rc < 0) {
        std::string lines;
        for (const auto& f : r.infections) lines += path + ": " + f.name + " FOUND\n";
        if (r.infections.empty()) lines += path + ": " + MavErrorName(r.rc) + " FOUND\n";
        if (r.rc == MAV_E_CLEAN_OK) lines += path + ": cleaned\n";
        if (r.rc == MAV_E_CLEAN_FAILED) lines += path + ": not cleaned\n";
        emit(lines);
    } else {
        emit(path + ": ERROR " + r.message + "\n");
    }
}

void Report::error(const std::string& path, const std::string& message) {
    Result r;
    r.rc = MAV_E_INVALID_SCANOBJECT;
    r.message = message;
    object(path, r);
}

void Report::progress() {
    if (!progress_) return;
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    if (secs <= 0) secs = 1e-9;
    char text[160];
    std::snprintf(text, sizeof text, "%llu files  %.1f files/s  %.2f MB/s",
                  static_cast<unsigned long long>(files_.load()), files_.load() / secs,
                  bytes_.load() / 1048576.0 / secs);
    std::lock_guard<std::mutex> lock(mu_);
    progressText_ = text;
    std::fprintf(stderr, "\r\033[K%s", text);
    std::fflush(stderr);
}

void Report::summary() {
    if (quiet_) return;  // no progress line either
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    std::lock_guard<std::mutex> lock(mu_);
    if (progress_ && !progressText_.empty()) std::fputs("\r\033[K", stderr);
    progressText_.clear();
    if (json_) {
        std::printf(
            "{\"summary\":{\"scanned\":%llu,\"found\":%llu,\"errors\":%llu,\"bytes\":%llu,"
            "\"seconds\":%.3f}}\n",
            static_cast<unsigned long long>(files_.load()),
            static_cast<unsigned long long>(found_.load()),
            static_cast<unsigned long long>(errors_.load()),
            static_cast<unsigned long long>(bytes_.load()), secs);
    } else {
        std::printf(
            "\n----------- SCAN SUMMARY -----------\n"
            "Scanned objects: %llu\nInfected objects: %llu\nErrors: %llu\n"
            "Data scanned: %.2f MB\nTime: %.3f sec\n",
            static_cast<unsigned long long>(files_.load()),
            static_cast<unsigned long long>(found_.load()),
            static_cast<unsigned long long>(errors_.load()), bytes_.load() / 1048576.0, secs);
    }
    std::fflush(stdout);
}

int Report::exitStatus() const {
    if (errors_.load() > 0) return 2;
    return found_.load() > 0 ? 1 : 0;
}

}  // namespace mavscan
