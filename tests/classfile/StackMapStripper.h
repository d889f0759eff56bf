#ifndef KJP_TESTS_STACKMAPSTRIPPER_H
#define KJP_TESTS_STACKMAPSTRIPPER_H

// An independent, deliberately plain statement of what the class-file model must make of
// a class of version 50 or below that nobody changed: the same bytes, except that major
// version 50 reads 49 and every StackMapTable nested in a Code attribute is gone, with the
// Code attribute's count and length corrected. The tests compare the model's output with
// this. It shares no code with the model.

#include <stdint.h>

#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace kjptest {

class StackMapStripper {
 public:
  static std::vector<uint8_t> strip(const std::vector<uint8_t>& in) {
    StackMapStripper s(in);
    return s.run();
  }

 private:
  explicit StackMapStripper(const std::vector<uint8_t>& in) : myIn(in), myPos(0) {}

  uint32_t u1() {
    need(1);
    return myIn[myPos++];
  }
  uint32_t u2() {
    uint32_t hi = u1();
    return (hi << 8) | u1();
  }
  uint32_t u4() {
    uint32_t hi = u2();
    return (hi << 16) | u2();
  }
  void need(size_t n) {
    if (myPos + n > myIn.size()) throw std::runtime_error("truncated");
  }
  void copy(std::vector<uint8_t>& out, size_t from, size_t to) { out.insert(out.end(), myIn.begin() + from, myIn.begin() + to); }
  static void put2(std::vector<uint8_t>& out, uint32_t v) {
    out.push_back(static_cast<uint8_t>(v >> 8));
    out.push_back(static_cast<uint8_t>(v));
  }
  static void put4(std::vector<uint8_t>& out, uint32_t v) {
    put2(out, v >> 16);
    put2(out, v & 0xFFFF);
  }
  void skipAttributes() {
    uint32_t count = u2();
    for (uint32_t i = 0; i < count; i++) {
      u2();
      uint32_t length = u4();
      need(length);
      myPos += length;
    }
  }

  std::vector<uint8_t> run() {
    std::vector<uint8_t> out;
    u4();
    u2();
    size_t majorAt = myPos;
    uint32_t major = u2();
    copy(out, 0, majorAt);
    put2(out, major == 50 ? 49 : major);
    bool strip = major <= 50;
    size_t poolStart = myPos;
    uint32_t count = u2();
    for (uint32_t i = 1; i < count; i++) {
      uint32_t tag = u1();
      switch (tag) {
        case 1: {
          uint32_t length = u2();
          need(length);
          myUtf8[i] = std::string(reinterpret_cast<const char*>(&myIn[myPos]), length);
          myPos += length;
          break;
        }
        case 3: case 4: myPos += 4; break;
        case 5: case 6: myPos += 8; i++; break;
        case 7: case 8: case 16: case 19: case 20: myPos += 2; break;
        case 9: case 10: case 11: case 12: case 17: case 18: myPos += 4; break;
        case 15: myPos += 3; break;
        default: throw std::runtime_error("unknown tag");
      }
    }
    size_t headStart = myPos;
    u2(); u2(); u2();
    uint32_t interfaces = u2();
    myPos += 2 * interfaces;
    uint32_t fields = u2();
    for (uint32_t i = 0; i < fields; i++) {
      myPos += 6;
      skipAttributes();
    }
    copy(out, poolStart, myPos);
    (void)headStart;
    uint32_t methods = u2();
    put2(out, methods);
    for (uint32_t i = 0; i < methods; i++) {
      size_t start = myPos;
      myPos += 6;
      copy(out, start, myPos);
      uint32_t attributes = u2();
      put2(out, attributes);
      for (uint32_t a = 0; a < attributes; a++) {
        size_t attributeStart = myPos;
        uint32_t name = u2();
        uint32_t length = u4();
        size_t bodyStart = myPos;
        need(length);
        if (!strip || myUtf8[name] != "Code") {
          myPos += length;
          copy(out, attributeStart, myPos);
          continue;
        }
        std::vector<uint8_t> body;
        myPos += 4;
        uint32_t codeLength = u4();
        myPos += codeLength;
        uint32_t handlers = u2();
        myPos += 8 * handlers;
        copy(body, bodyStart, myPos);
        uint32_t nested = u2();
        std::vector<uint8_t> kept;
        uint32_t keptCount = 0;
        for (uint32_t n = 0; n < nested; n++) {
          size_t nestedStart = myPos;
          uint32_t nestedName = u2();
          uint32_t nestedLength = u4();
          need(nestedLength);
          myPos += nestedLength;
          if (myUtf8[nestedName] != "StackMapTable") {
            copy(kept, nestedStart, myPos);
            keptCount++;
          }
        }
        put2(body, keptCount);
        body.insert(body.end(), kept.begin(), kept.end());
        put2(out, name);
        put4(out, static_cast<uint32_t>(body.size()));
        out.insert(out.end(), body.begin(), body.end());
      }
    }
    size_t tail = myPos;
    skipAttributes();
    copy(out, tail, myPos);
    return out;
  }

  const std::vector<uint8_t>& myIn;
  size_t myPos;
  std::map<uint32_t, std::string> myUtf8;
};

}  // namespace kjptest

#endif
