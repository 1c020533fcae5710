// runtime_text.h - runtime configuration texts for tests, built key by key.
#ifndef RUNTIME_TEXT_H
#define RUNTIME_TEXT_H

#include <string>

// Builds a runtime configuration text line by line.
struct RuntimeText {
    std::string text;

    RuntimeText& line(const std::string& l) {
        text += l + "\n";
        return *this;
    }
    RuntimeText& profile(const std::string& name, bool active = true, const std::string& linkage = "0") {
        const std::string p = "mav.profile." + name;
        line(p + "=" + name);
        line(p + ".Active=" + (active ? "true" : "false"));
        return line(p + ".ProfileLinkage=" + linkage);
    }
    // Step k of profile: type 0 names a group, 1 a profile.
    RuntimeText& step(const std::string& profile, const std::string& k, const std::string& type,
                 const std::string& value) {
        const std::string s = "mav.profile." + profile + ".ProfileSteps." + k;
        line(s + "=" + k);
        line(s + ".ProfileEntryType=" + type);
        return line(s + ".ProfileEntryValue=" + value);
    }
    RuntimeText& group(const std::string& name) { return line("mav.group." + name + "=" + name); }
    RuntimeText& provider(const std::string& name, const std::string& group, const std::string& path,
                     const std::string& pool = "1", const std::string& active = "true") {
        const std::string p = "mav.provider.Pelmark.Adapters." + name;
        line(p + "=" + name);
        line(p + ".Group=" + group);
        line(p + ".Active=" + active);
        line(p + ".PoolMaxInstances=" + pool);
        return line(p + ".AdapterPath=" + path);
    }
    // NAME.Parameters.PARAM with type and value under the prefix of a provider,
    // group or profile.
    RuntimeText& param(const std::string& prefix, const std::string& name, const std::string& type,
                  const std::string& value) {
        const std::string p = prefix + ".Parameters." + name;
        line(p + "=" + name);
        line(p + ".Type=" + type);
        return line(p + ".Value=" + value);
    }
};

#endif
