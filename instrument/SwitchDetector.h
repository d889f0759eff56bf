#ifndef KJP_SWITCHDETECTOR_H
#define KJP_SWITCHDETECTOR_H

// A switch is padded to a multiple of 4 from the start of the code. The padding is never
// rewritten: in a method with a switch every insertion is a multiple of 4 bytes instead,
// so that each instruction keeps its index modulo 4. This tells which methods need that.
class SwitchDetector {
 public:
  // Whether the code holds a tableswitch or lookupswitch. Throws ClassFormatError for code
  // that is no valid instruction sequence.
  static bool containsSwitch(const char* code, int length);
};

#endif
