// The platform's settings for its other libraries: the members of platform.json by their dotted
// path, for example "http.connectTimeoutMs". Any thread. A broken or missing file, and a member of
// another type, leave the default in force.
#pragma once

#include <string>

// Names the directory in which platform.json is looked for when ZEL_PLATFORM_CONFIG names no
// file. The file is read at the first look-up after this call.
void orb_config_set_directory(const std::string& directory);

int orb_config_int(const char* path, int defaultValue);
std::string orb_config_text(const char* path, const char* defaultValue);
