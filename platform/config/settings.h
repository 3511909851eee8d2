// The platform's settings for its other libraries: the members of platform.json by their dotted
// path, for example "http.connectTimeoutMs"; an element of a list by its place, for example
// "detect.addresses.0". Any thread.
//
// A member that is missing or of another type has its default. A file that is broken, too large
// or no regular file is reported in one log line, and every member has its default.
#pragma once

#include <string>

// Names the directory in which platform.json is looked for when ZEL_PLATFORM_CONFIG names no
// file. The file is read at the first look-up after this call, and not again.
void orb_config_set_directory(const std::string& directory);

int orb_config_int(const char* path, int defaultValue);
std::string orb_config_text(const char* path, const char* defaultValue);
