#include "agent/HostID.h"

#include <ctype.h>
#include <dirent.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const int MAC_TEXT_SIZE = 18;  // "aa:bb:cc:dd:ee:ff" and its terminator
const int NAME_SIZE = 256;

// Reads the first line of a small file into 'out' without the surrounding blanks.
bool readTrimmedLine(const char* path, char* out, int outSize) {
  FILE* file = fopen(path, "re");
  if (file == nullptr) {
    return false;
  }
  char line[256];
  bool ok = fgets(line, sizeof(line), file) != nullptr;
  fclose(file);
  if (!ok) {
    return false;
  }
  char* start = line;
  while (*start != 0 && isspace(static_cast<unsigned char>(*start))) {
    start++;
  }
  char* end = start + strlen(start);
  while (end > start && isspace(static_cast<unsigned char>(end[-1]))) {
    end--;
  }
  int length = static_cast<int>(end - start);
  if (length == 0 || length >= outSize) {
    return false;
  }
  memcpy(out, start, static_cast<size_t>(length));
  out[length] = 0;
  return true;
}

// A usable hardware address: six hex pairs, not all zero.
bool isUsableMac(const char* text) {
  if (strlen(text) != MAC_TEXT_SIZE - 1) {
    return false;
  }
  bool nonZero = false;
  for (int i = 0; i < MAC_TEXT_SIZE - 1; i++) {
    char c = text[i];
    if (i % 3 == 2) {
      if (c != ':') {
        return false;
      }
    } else if (!isxdigit(static_cast<unsigned char>(c))) {
      return false;
    } else if (c != '0') {
      nonZero = true;
    }
  }
  return nonZero;
}

}  // namespace

bool readMachineID(const char* path, char* out, int outSize) { return readTrimmedLine(path, out, outSize); }

bool readMacAddress(const char* netClassDir, char* out, int outSize) {
  if (outSize < MAC_TEXT_SIZE) {
    return false;
  }
  DIR* dir = opendir(netClassDir);
  if (dir == nullptr) {
    return false;
  }
  char bestName[NAME_SIZE] = "";
  bool bestHasDevice = false;
  bool found = false;
  struct dirent* entry;
  while ((entry = readdir(dir)) != nullptr) {
    const char* name = entry->d_name;
    if (name[0] == '.' || strcmp(name, "lo") == 0 || strlen(name) >= NAME_SIZE) {
      continue;
    }
    char path[1024];
    char mac[64];
    snprintf(path, sizeof(path), "%s/%s/address", netClassDir, name);
    if (!readTrimmedLine(path, mac, sizeof(mac)) || !isUsableMac(mac)) {
      continue;
    }
    snprintf(path, sizeof(path), "%s/%s/device", netClassDir, name);
    struct stat info;
    bool hasDevice = stat(path, &info) == 0;
    bool better = !found || (hasDevice && !bestHasDevice) ||
                  (hasDevice == bestHasDevice && strcmp(name, bestName) < 0);
    if (better) {
      found = true;
      bestHasDevice = hasDevice;
      snprintf(bestName, sizeof(bestName), "%s", name);
      for (int i = 0; i < MAC_TEXT_SIZE; i++) {
        out[i] = static_cast<char>(tolower(static_cast<unsigned char>(mac[i])));
      }
    }
  }
  closedir(dir);
  return found;
}

KString getHostID2() {
  char hostName[NAME_SIZE];
  if (gethostname(hostName, sizeof(hostName)) != 0) {
    hostName[0] = 0;
  }
  hostName[sizeof(hostName) - 1] = 0;
  char mac[MAC_TEXT_SIZE];
  if (!readMacAddress("/sys/class/net", mac, sizeof(mac))) {
    return KString(hostName);
  }
  KString result(hostName, "/");
  result += mac;
  return result;
}

KString getHostID() {
  char id[128];
  if (readMachineID("/etc/machine-id", id, sizeof(id)) || readMachineID("/var/lib/dbus/machine-id", id, sizeof(id))) {
    return KString(id);
  }
  return getHostID2();
}
