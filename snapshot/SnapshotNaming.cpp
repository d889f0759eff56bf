#include "snapshot/SnapshotNaming.h"

#include <dirent.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool isAsciiLetterOrDigit(unsigned char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool fileExists(const char* path) {
  struct stat info;
  return stat(path, &info) == 0;
}

// The number of 'fileName' as a numbered variant of baseName + extension, or -1 if it isn't one.
long long numberOf(const char* fileName, const KString& baseName, const char* extension) {
  size_t nameLength = strlen(fileName);
  size_t baseLength = static_cast<size_t>(baseName.length());
  size_t extensionLength = strlen(extension);
  if (strncmp(fileName, baseName.get(), baseLength) != 0) {
    return -1;
  }
  const char* rest = fileName + baseLength;
  size_t restLength = nameLength - baseLength;
  if (strcmp(rest, extension) == 0) {
    return 0;
  }
  // "(" digits ")" extension
  if (restLength < extensionLength + 3 || rest[0] != '(' || rest[restLength - extensionLength - 1] != ')' ||
      strcmp(rest + restLength - extensionLength, extension) != 0) {
    return -1;
  }
  size_t digits = restLength - extensionLength - 2;
  if (digits > 9) {
    return -1;
  }
  long long number = 0;
  for (size_t i = 1; i <= digits; i++) {
    if (rest[i] < '0' || rest[i] > '9') {
      return -1;
    }
    number = number * 10 + (rest[i] - '0');
  }
  return number;
}

KString numberedName(const char* directory, const KString& baseName, long long number, const char* extension) {
  KString path(directory);
  path += "/";
  path += baseName.get();
  if (number != 0) {
    char suffix[32];
    snprintf(suffix, sizeof(suffix), "(%lld)", number);
    path += suffix;
  }
  path += extension;
  return path;
}

}  // namespace

KString sessionNameToFileNamePart(const char* sessionName) {
  size_t length = strlen(sessionName);
  char* part = new char[length + 1];
  for (size_t i = 0; i < length; i++) {
    unsigned char c = static_cast<unsigned char>(sessionName[i]);
    part[i] = (c >= 0x80 || c == '.' || isAsciiLetterOrDigit(c)) ? static_cast<char>(c) : '_';
  }
  part[length] = 0;
  KString result(part);
  delete[] part;
  return result;
}

KString makeSnapshotBaseName(const char* sessionName, const char* postfix, time_t now) {
  KString name;
  if (sessionName != nullptr && sessionName[0] != 0) {
    name += sessionNameToFileNamePart(sessionName).get();
    name += "-";
  }
  struct tm local;
  localtime_r(&now, &local);
  char date[32];
  strftime(date, sizeof(date), "%Y-%m-%d", &local);
  name += date;
  if (postfix != nullptr && postfix[0] != 0) {
    name += "-";
    name += postfix;
  }
  return name;
}

KString chooseSnapshotFile(const char* directory, const KString& baseName, const char* extension) {
  DIR* listing = opendir(directory);
  if (listing == nullptr) {
    for (long long number = 0;; number++) {
      KString candidate = numberedName(directory, baseName, number, extension);
      if (!fileExists(candidate.get())) {
        return candidate;
      }
    }
  }
  long long highest = -1;
  for (struct dirent* entry = readdir(listing); entry != nullptr; entry = readdir(listing)) {
    long long number = numberOf(entry->d_name, baseName, extension);
    if (number > highest) {
      highest = number;
    }
  }
  closedir(listing);
  return numberedName(directory, baseName, highest + 1, extension);
}

KString getSnapshotDirectory(const char* dirOption, const char* userHome) {
  if (dirOption != nullptr && dirOption[0] != 0) {
    if (dirOption[0] == '/') {
      return KString(dirOption);
    }
    char cwd[4096];
    if (getcwd(cwd, sizeof(cwd)) == nullptr) {
      return KString(dirOption);
    }
    KString path(cwd);
    path += "/";
    path += dirOption;
    return path;
  }
  KString path(userHome == nullptr ? "" : userHome);
  path += "/Snapshots";
  return path;
}

bool makeDirectories(const char* path) {
  size_t length = strlen(path);
  // Each prefix that ends before a slash, then the whole path.
  for (size_t end = 1; end <= length; end++) {
    if (end < length && path[end] != '/') {
      continue;
    }
    KString prefix(path, static_cast<int>(end));
    // A parent we may not create may still exist, as "/" or a mount point does.
    if (mkdir(prefix.get(), 0777) != 0 && errno != EEXIST && !fileExists(prefix.get())) {
      return false;
    }
  }
  struct stat info;
  return length > 0 && stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}
