// Exported function of the build and host facts family.
#include <string>

#include "sysinfo/host_info.h"
#include "zorp/sysinfo.h"

extern "C" {

const char* zorp_const_str(const char* key) {
  thread_local std::string text;
  text = zorp::const_str_value(key);
  return text.c_str();
}

}  // extern "C"
