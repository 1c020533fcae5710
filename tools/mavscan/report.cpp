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

bool validUtf8(const std::string& s) {
    for (size_t i = 0; i < s.size();) {
        size_t n = utf8Len(s, i);
        if (n == 0) return false;
        i += n;
    }
    return true;
}

std::string base64(const std::string& s) {
    static const char k[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    for (size_t i = 0; i < s.size(); i += 3) {
        uint32_t v = static_cast<unsigned char>(s[i]) << 16;
        if (i + 1 < s.size()) v |= static_cast<unsigned char>(s[i + 1]) << 8;
        if (i + 2 < s.size()) v |= static_cast<unsigned char>(s[i + 2]);
        out += k[(v >> 18) & 63];
        out += k[(v >> 12) & 63];
        out += i + 1 < s.size() ? k[(v >> 6) & 63] : '=';
        out += i + 2 < s.size() ? k[v & 63] : '=';
    }
    return out;
}

}  // namespace

std::string jsonString(const std::string& s) {
    std::string out = "\"";
    char esc[8];
    for (size_t i = 0; i < s.size();) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        size_t n = utf8Len(s, i);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            std::snprintf(esc, sizeof esc, "\\u%04x", c);
            out += esc;
        } else if (n > 0) {
            out.append(s, i, n);
            i += n;
            continue;
        } else {
            out += "\\ufffd";
        }
        ++i;
    }
    return out + "\"";
}

std::string jsonName(const std::string& key, const std::string& s) {
    std::string j = "\"" + key + "\":" + jsonString(s);
    if (!validUtf8(s)) j += ",\"" + key + "_bytes\":\"" + base64(s) + "\"";
    return j;
}

std::string textSafe(const std::string& s) {
    std::string out;
    char esc[8];
    for (size_t i = 0; i < s.size();) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        size_t n = utf8Len(s, i);
        // U+0080..U+009F are control characters too (C2 80..C2 9F).
        bool c1 = n == 2 && c == 0xC2 && static_cast<unsigned char>(s[i + 1]) < 0xA0;
        if (c == '\\') {
            out += "\\\\";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\t') {
            out += "\\t";
        } else if (c == '\r') {
            out += "\\r";
        } else if (n > 1 && !c1) {
            out.append(s, i, n);
            i += n;
            continue;
        } else if (c < 0x20 || c >= 0x7F) {
            std::snprintf(esc, sizeof esc, "\\x%02x", c);
            out += esc;
        } else {
            out += static_cast<char>(c);
        }
        ++i;
    }
    return out;
}

Report::Report(const ReportOptions& options)
    : opt_(options), start_(std::chrono::steady_clock::now()) {}

// Object lines go to standard output (and the log); the progress line on
// standard error is taken away first and drawn again below them.
void Report::emit(const std::string& line) {
    std::lock_guard<std::mutex> lock(mu_);
    if (opt_.progress && !progressText_.empty()) std::fputs("\r\033[K", stderr);
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
    if (opt_.log != nullptr) {
        std::fwrite(line.data(), 1, line.size(), opt_.log);
        std::fflush(opt_.log);
    }
    if (opt_.progress && !progressText_.empty()) {
        std::fputs(progressText_.c_str(), stderr);
        std::fflush(stderr);
    }
}

void Report::object(const std::string& path, const Result& r) {
    files_++;
    if (r.rc <= 0) bytes_ += r.size;  // only what an engine read
    const char* verdict = r.rc == MAV_OK ? "OK" : r.rc < 0 ? "FOUND" : "ERROR";
    if (r.rc < 0) found_++;
    if (r.rc > 0) errors_++;
    if (r.rc == MAV_OK && opt_.infectedOnly) return;
    if (opt_.json) {
        std::string j = "{" + jsonName("path", path) + ",\"verdict\":\"" + verdict +
                        "\",\"code\":\"" + MavErrorName(r.rc) + "\",\"infections\":[";
        for (size_t i = 0; i < r.infections.size(); ++i) {
            j += (i ? "," : "") + std::string("{\"name\":") + jsonString(r.infections[i].name) +
                 "," + jsonName("object", r.infections[i].object) + "}";
        }
        j += "],\"scan_errors\":[";
        for (size_t i = 0; i < r.errors.size(); ++i) {
            j += (i ? "," : "") + std::string("{\"code\":") + std::to_string(r.errors[i].code) +
                 ",\"text\":" + jsonString(r.errors[i].text) + "," +
                 jsonName("object", r.errors[i].object) + "}";
        }
        j += "]";
        if (r.rc > 0) j += ",\"error\":" + jsonString(r.message);
        j += ",\"size\":" + std::to_string(r.size) + "}\n";
        emit(j);
        return;
    }
    std::string name = textSafe(path);
    if (r.rc == MAV_OK) {
        emit(name + ": OK\n");
    } else if (r.rc < 0) {
        std::string lines;
        for (const auto& f : r.infections) lines += name + ": " + textSafe(f.name) + " FOUND\n";
        if (r.infections.empty()) lines += name + ": " + MavErrorName(r.rc) + " FOUND\n";
        if (r.rc == MAV_E_CLEAN_OK) lines += name + ": cleaned\n";
        if (r.rc == MAV_E_CLEAN_FAILED) lines += name + ": not cleaned\n";
        emit(lines);
    } else {
        emit(name + ": ERROR " + textSafe(r.message) + "\n");
    }
}

void Report::error(const std::string& path, const std::string& message) {
    Result r;
    r.rc = MAV_E_INVALID_SCANOBJECT;
    r.message = message;
    object(path, r);
}

void Report::progress() {
    if (!opt_.progress) return;
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

void Report::summary(const std::vector<std::string>& engines, bool interrupted) {
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (opt_.progress && !progressText_.empty()) std::fputs("\r\033[K", stderr);
        progressText_.clear();
    }
    if (opt_.noSummary) return;
    double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    unsigned long long files = files_.load(), found = found_.load(), errors = errors_.load(),
                       bytes = bytes_.load();
    char line[256];
    std::string text;
    if (opt_.json) {
        std::snprintf(line, sizeof line,
                      "{\"summary\":{\"scanned\":%llu,\"found\":%llu,\"errors\":%llu,"
                      "\"bytes\":%llu,\"seconds\":%.3f,\"interrupted\":%s,\"engines\":[",
                      files, found, errors, bytes, secs, interrupted ? "true" : "false");
        text = line;
        for (size_t i = 0; i < engines.size(); ++i) text += (i ? "," : "") + jsonString(engines[i]);
        text += "]}}\n";
    } else {
        text = "\n----------- SCAN SUMMARY -----------\n";
        for (const std::string& e : engines) text += "Engine: " + textSafe(e) + "\n";
        std::snprintf(line, sizeof line,
                      "Scanned objects: %llu\nInfected objects: %llu\nErrors: %llu\n"
                      "Data scanned: %.2f MB\nTime: %.3f sec\n",
                      files, found, errors, bytes / 1048576.0, secs);
        text += line;
        if (interrupted) text += "Interrupted: the scan did not end\n";
    }
    emit(text);
}

int Report::exitStatus() const {
    if (errors_.load() > 0) return 2;
    return found_.load() > 0 ? 1 : 0;
}

}  // namespace mavscan
