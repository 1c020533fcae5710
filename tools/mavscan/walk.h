// walk.h - expands the command-line paths into the objects to scan.
#ifndef MAVSCAN_WALK_H
#define MAVSCAN_WALK_H

#include <regex.h>

#include <atomic>
#include <functional>
#include <string>
#include <vector>

#include "engine.h"

namespace mavscan {

// --exclude, --exclude-dir and --include: POSIX extended regular expressions
// matched anywhere in the path.
class PathFilter {
  public:
    PathFilter() = default;
    PathFilter(const PathFilter&) = delete;
    PathFilter& operator=(const PathFilter&) = delete;
    ~PathFilter();

    // Compiles the patterns; false with *error naming the one that is not valid.
    bool compile(const std::vector<std::string>& exclude,
                 const std::vector<std::string>& excludeDir,
                 const std::vector<std::string>& include, std::string* error);
    bool scanFile(const std::string& path) const;
    bool enterDir(const std::string& path) const;

  private:
    std::vector<regex_t> exclude_, excludeDir_, include_;
};

struct WalkRules {
    bool followLinks = false;
    const PathFilter* filter = nullptr;
    const std::atomic<bool>* stop = nullptr;  // when set, the walk ends
};

// Calls file(target) for every regular file below path (path itself when it
// is a file), and problem(path, message) for what cannot be walked. Symbolic
// links met inside directories are skipped unless followLinks (directory
// cycles are then cut); a path given by the caller is always followed.
void walk(const std::string& path, const WalkRules& rules,
          const std::function<void(const Target&)>& file,
          const std::function<void(const std::string&, const std::string&)>& problem);

}  // namespace mavscan

#endif
