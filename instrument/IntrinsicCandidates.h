#ifndef KJP_INTRINSICCANDIDATES_H
#define KJP_INTRINSICCANDIDATES_H

class ClassFile;
class MethodInfo;

// Whether the JVM may replace 'method' by a compiler intrinsic: the JDK marks such methods with
// jdk.internal.vm.annotation.IntrinsicCandidate (jdk.internal.HotSpotIntrinsicCandidate before
// JDK 16). HotSpot binds an intrinsic by name, descriptor and flags, so a native turned into a
// wrapper loses it, and the JVM warns on standard output at every start (java.lang.reflect.Array
// getLength and newArray on JDK 17 and 25). Such natives are never wrapped. Annotations the
// model cannot walk count as no mark.
class IntrinsicCandidates {
 public:
  static bool isIntrinsicCandidate(const ClassFile& classFile, const MethodInfo& method);
};

#endif
