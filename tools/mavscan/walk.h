// walk.h - expands the command-line paths into the objects to scan.
#ifndef MAVSCAN_WALK_H
#define MAVSCAN_WALK_H

#include <functional>
#include <string>

namespace mavscan {

// Calls file(path) for every regular file below path (path itself when it is
// a file), and problem(path, message) for what cannot be walked. Symbolic
// links met inside directories are skipped unless followLinks (directory
// cycles are then cut); a path given by the caller is always followed.
void walk(const std::string& path, bool followLinks,
          const std::function<void(const std::string&)>& file,
          const std::function<void(const std::string&, const std::string&)>& problem);

}  // namespace mavscan

#endif
