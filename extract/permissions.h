#ifndef TARNIX_EXTRACT_PERMISSIONS_H
#define TARNIX_EXTRACT_PERMISSIONS_H

// Opens up one directory level: mode 0777 for every entry of the directory `path`, "." and ".."
// among them, so that the directory and its parent open up too. Outcomes go to the log only.
void _chmod(const char *path);

#endif
