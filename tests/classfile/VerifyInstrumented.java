// Verifies every class of a corpus (the format of DumpJrtClasses.java) outside the JVM, with
// ASM's analysis package. Run it on the JDK the classes came from, so that the class
// hierarchy questions of the verifier can be answered from that JDK's own classes:
//   <jdk>/bin/java -cp asm.jar:asm-tree.jar:asm-analysis.jar:asm-util.jar \
//       tests/classfile/VerifyInstrumented.java <corpus>
//
// Classes without stack maps (version 49 and below) are verified by type inference (ASM's
// Analyzer with a SimpleVerifier). Classes with stack maps are checked as the JVM's type
// checker does: the state at each frame is the declared frame, every way into it (fall
// through, branch, switch, exception) must be assignable to it, and an instruction behind an
// unconditional transfer must have a frame. Where a class in question cannot be loaded, an
// assignment between references is taken as valid and counted.
//
// Exits 1 if any method fails, naming each.
import java.io.DataInputStream;
import java.io.EOFException;
import java.io.FileInputStream;
import java.io.BufferedInputStream;
import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;
import org.objectweb.asm.ClassReader;
import org.objectweb.asm.Label;
import org.objectweb.asm.Opcodes;
import org.objectweb.asm.Type;
import org.objectweb.asm.tree.AbstractInsnNode;
import org.objectweb.asm.tree.ClassNode;
import org.objectweb.asm.tree.FrameNode;
import org.objectweb.asm.tree.JumpInsnNode;
import org.objectweb.asm.tree.LabelNode;
import org.objectweb.asm.tree.LookupSwitchInsnNode;
import org.objectweb.asm.tree.MethodNode;
import org.objectweb.asm.tree.TableSwitchInsnNode;
import org.objectweb.asm.tree.TryCatchBlockNode;
import org.objectweb.asm.tree.TypeInsnNode;
import org.objectweb.asm.tree.analysis.Analyzer;
import org.objectweb.asm.tree.analysis.AnalyzerException;
import org.objectweb.asm.tree.analysis.BasicValue;
import org.objectweb.asm.tree.analysis.Frame;
import org.objectweb.asm.tree.analysis.SimpleVerifier;

public class VerifyInstrumented {
  static long unresolved;

  // A SimpleVerifier that answers from the running JDK and takes an assignment it cannot
  // decide as valid.
  static class Verifier extends SimpleVerifier {
    Verifier(Type currentClass, Type superClass, List<Type> interfaces, boolean isInterface) {
      super(Opcodes.ASM9, currentClass, superClass, interfaces, isInterface);
      setClassLoader(ClassLoader.getSystemClassLoader());
    }

    @Override
    protected boolean isAssignableFrom(Type type1, Type type2) {
      // As in the JVM's verifier, an interface type takes any class type, also as the
      // element type of arrays of equal depth.
      while (type1.getSort() == Type.ARRAY && type2.getSort() == Type.ARRAY) {
        type1 = Type.getType(type1.getDescriptor().substring(1));
        type2 = Type.getType(type2.getDescriptor().substring(1));
      }
      try {
        if (type1.getSort() == Type.OBJECT && type2.getSort() >= Type.ARRAY && isInterface(type1)) {
          return true;
        }
        return super.isAssignableFrom(type1, type2);
      } catch (RuntimeException | LinkageError e) {
        unresolved++;
        return true;
      }
    }

    @Override
    protected boolean isInterface(Type type) {
      try {
        return super.isInterface(type);
      } catch (RuntimeException | LinkageError e) {
        unresolved++;
        return false;
      }
    }

    @Override
    protected Type getSuperClass(Type type) {
      try {
        return super.getSuperClass(type);
      } catch (RuntimeException | LinkageError e) {
        unresolved++;
        return Type.getObjectType("java/lang/Object");
      }
    }

    boolean assignable(BasicValue value, BasicValue expected) {
      return isSubTypeOf(value, expected);
    }
  }

  public static void main(String[] args) throws IOException {
    long classes = 0, methods = 0, checkedFrames = 0, failures = 0;
    try (DataInputStream in = new DataInputStream(new BufferedInputStream(new FileInputStream(args[0]), 1 << 20))) {
      while (true) {
        int nameLength;
        try {
          nameLength = in.readInt();
        } catch (EOFException end) {
          break;
        }
        byte[] name = new byte[nameLength];
        in.readFully(name);
        byte[] data = new byte[in.readInt()];
        in.readFully(data);
        String className = new String(name, StandardCharsets.UTF_8);
        classes++;
        int major = (data[6] & 0xFF) << 8 | (data[7] & 0xFF);
        // This ASM reads versions up to 64; nothing that later versions added to the format
        // matters to the verifier.
        if (major > 64) {
          data[6] = 0;
          data[7] = 64;
        }
        ClassNode node = new ClassNode();
        try {
          new ClassReader(data).accept(node, ClassReader.EXPAND_FRAMES);
        } catch (RuntimeException e) {
          failures++;
          System.out.println("FAIL " + className + ": cannot read: " + e);
          continue;
        }
        List<Type> interfaces = new ArrayList<>();
        for (String i : node.interfaces) interfaces.add(Type.getObjectType(i));
        Type superType = node.superName == null ? null : Type.getObjectType(node.superName);
        boolean isInterface = (node.access & Opcodes.ACC_INTERFACE) != 0;
        for (MethodNode method : node.methods) {
          if (method.instructions.size() == 0) continue;
          methods++;
          Verifier verifier = new Verifier(Type.getObjectType(node.name), superType, interfaces, isInterface);
          try {
            if (major >= 50) {
              checkedFrames += checkWithFrames(node, method, verifier);
            } else {
              new Analyzer<>(verifier).analyze(node.name, method);
            }
          } catch (AnalyzerException | RuntimeException e) {
            failures++;
            System.out.println("FAIL " + className + " " + method.name + method.desc + ": " + e.getMessage());
            if (System.getProperty("verify.trace") != null) e.printStackTrace(System.out);
          }
        }
      }
    }
    System.out.println("verified classes: " + classes + ", methods: " + methods + ", frames checked: " + checkedFrames
        + ", failed methods: " + failures + ", unresolved type questions: " + unresolved);
    System.exit(failures == 0 ? 0 : 1);
  }

  static BasicValue value(Verifier verifier, Object type, MethodNode method, ClassNode node) {
    if (Opcodes.TOP.equals(type)) return BasicValue.UNINITIALIZED_VALUE;
    if (Opcodes.INTEGER.equals(type)) return BasicValue.INT_VALUE;
    if (Opcodes.FLOAT.equals(type)) return BasicValue.FLOAT_VALUE;
    if (Opcodes.LONG.equals(type)) return BasicValue.LONG_VALUE;
    if (Opcodes.DOUBLE.equals(type)) return BasicValue.DOUBLE_VALUE;
    if (Opcodes.NULL.equals(type)) return verifier.newValue(Type.getObjectType("null"));
    if (Opcodes.UNINITIALIZED_THIS.equals(type)) return verifier.newValue(Type.getObjectType(node.name));
    if (type instanceof String) {
      String s = (String) type;
      return verifier.newValue(s.startsWith("[") ? Type.getType(s) : Type.getObjectType(s));
    }
    // Uninitialized(label): the type of the 'new' at that label.
    AbstractInsnNode insn = ((LabelNode) type);
    while (insn != null && insn.getOpcode() < 0) insn = insn.getNext();
    if (!(insn instanceof TypeInsnNode) || insn.getOpcode() != Opcodes.NEW) {
      throw new IllegalStateException("an uninitialized type names no 'new'");
    }
    return verifier.newValue(Type.getObjectType(((TypeInsnNode) insn).desc));
  }

  static Frame<BasicValue> declared(Verifier verifier, FrameNode f, MethodNode method, ClassNode node) {
    Frame<BasicValue> frame = new Frame<>(method.maxLocals, method.maxStack);
    int slot = 0;
    for (Object t : f.local) {
      BasicValue v = value(verifier, t, method, node);
      if (slot >= method.maxLocals) throw new IllegalStateException("frame locals exceed max_locals");
      frame.setLocal(slot++, v);
      if (v == BasicValue.LONG_VALUE || v == BasicValue.DOUBLE_VALUE) {
        if (slot >= method.maxLocals) throw new IllegalStateException("frame locals exceed max_locals");
        frame.setLocal(slot++, BasicValue.UNINITIALIZED_VALUE);
      }
    }
    for (; slot < method.maxLocals; slot++) frame.setLocal(slot, BasicValue.UNINITIALIZED_VALUE);
    for (Object t : f.stack) frame.push(value(verifier, t, method, node));
    frame.setReturn(verifier.newReturnTypeValue(Type.getReturnType(method.desc)));
    return frame;
  }

  static void assignable(Verifier verifier, Frame<BasicValue> from, Frame<BasicValue> to, boolean withStack, String where) {
    for (int i = 0; i < to.getLocals(); i++) {
      BasicValue expected = to.getLocal(i);
      if (expected == BasicValue.UNINITIALIZED_VALUE) continue;
      BasicValue actual = from.getLocal(i);
      if (!verifier.assignable(actual, expected)) {
        throw new IllegalStateException(where + ": local " + i + " is " + actual + ", the frame wants " + expected);
      }
    }
    if (!withStack) return;
    if (from.getStackSize() != to.getStackSize()) {
      throw new IllegalStateException(where + ": stack of " + from.getStackSize() + ", the frame has " + to.getStackSize());
    }
    for (int i = 0; i < to.getStackSize(); i++) {
      if (!verifier.assignable(from.getStack(i), to.getStack(i))) {
        throw new IllegalStateException(where + ": stack " + i + " is " + from.getStack(i) + ", the frame wants " + to.getStack(i));
      }
    }
  }

  // The initial frame: this and the parameters.
  static Frame<BasicValue> initial(Verifier verifier, MethodNode method, ClassNode node) {
    Frame<BasicValue> frame = new Frame<>(method.maxLocals, method.maxStack);
    int slot = 0;
    if ((method.access & Opcodes.ACC_STATIC) == 0) frame.setLocal(slot++, verifier.newValue(Type.getObjectType(node.name)));
    for (Type t : Type.getArgumentTypes(method.desc)) {
      frame.setLocal(slot++, verifier.newValue(t));
      if (t.getSize() == 2) frame.setLocal(slot++, BasicValue.UNINITIALIZED_VALUE);
    }
    for (; slot < method.maxLocals; slot++) frame.setLocal(slot, BasicValue.UNINITIALIZED_VALUE);
    frame.setReturn(verifier.newReturnTypeValue(Type.getReturnType(method.desc)));
    return frame;
  }

  // The type checker's walk: one pass in code order, the state replaced at each frame.
  static int checkWithFrames(ClassNode node, MethodNode method, Verifier verifier) throws AnalyzerException {
    Map<LabelNode, Frame<BasicValue>> frames = new HashMap<>();
    AbstractInsnNode[] insns = method.instructions.toArray();
    // The frame of each label: a FrameNode stands behind the labels of its offset.
    for (int i = 0; i < insns.length; i++) {
      if (insns[i] instanceof FrameNode) {
        Frame<BasicValue> f = declared(verifier, (FrameNode) insns[i], method, node);
        for (int j = i - 1; j >= 0 && insns[j].getOpcode() < 0; j--) {
          if (insns[j] instanceof LabelNode) frames.put((LabelNode) insns[j], f);
        }
        for (int j = i + 1; j < insns.length && insns[j].getOpcode() < 0; j++) {
          if (insns[j] instanceof LabelNode) frames.put((LabelNode) insns[j], f);
        }
      }
    }
    Frame<BasicValue> current = initial(verifier, method, node);
    boolean reachable = true;
    int checked = 0;
    List<TryCatchBlockNode> handlers = method.tryCatchBlocks;
    Map<TryCatchBlockNode, int[]> ranges = new HashMap<>();
    for (TryCatchBlockNode h : handlers) {
      ranges.put(h, new int[] {method.instructions.indexOf(h.start), method.instructions.indexOf(h.end)});
      if (!frames.containsKey(h.handler)) throw new IllegalStateException("an exception handler has no frame");
    }
    for (int i = 0; i < insns.length; i++) {
      AbstractInsnNode insn = insns[i];
      if (insn instanceof FrameNode) {
        Frame<BasicValue> f = declared(verifier, (FrameNode) insn, method, node);
        if (reachable) assignable(verifier, current, f, true, "fall through to frame at insn " + i);
        current = new Frame<>(f);
        reachable = true;
        checked++;
        continue;
      }
      if (insn.getOpcode() < 0) continue;
      if (!reachable) throw new IllegalStateException("instruction " + i + " behind an unconditional transfer has no frame");
      for (TryCatchBlockNode h : handlers) {
        int[] r = ranges.get(h);
        if (i > r[0] && i < r[1]) {
          Frame<BasicValue> target = frames.get(h.handler);
          assignable(verifier, current, target, false, "exception path from insn " + i);
        }
      }
      int opcode = insn.getOpcode();
      if (opcode == Opcodes.JSR || opcode == Opcodes.RET) throw new IllegalStateException("jsr/ret in a class with stack maps");
      if (insn instanceof JumpInsnNode || insn instanceof TableSwitchInsnNode || insn instanceof LookupSwitchInsnNode) {
        current.execute(insn, verifier);
        List<LabelNode> targets = new ArrayList<>();
        if (insn instanceof JumpInsnNode) targets.add(((JumpInsnNode) insn).label);
        if (insn instanceof TableSwitchInsnNode) {
          targets.add(((TableSwitchInsnNode) insn).dflt);
          targets.addAll(((TableSwitchInsnNode) insn).labels);
        }
        if (insn instanceof LookupSwitchInsnNode) {
          targets.add(((LookupSwitchInsnNode) insn).dflt);
          targets.addAll(((LookupSwitchInsnNode) insn).labels);
        }
        for (LabelNode target : targets) {
          Frame<BasicValue> f = frames.get(target);
          if (f == null) throw new IllegalStateException("the branch at insn " + i + " leads to an instruction without frame");
          assignable(verifier, current, f, true, "branch at insn " + i);
        }
        reachable = opcode != Opcodes.GOTO && !(insn instanceof TableSwitchInsnNode) && !(insn instanceof LookupSwitchInsnNode);
        continue;
      }
      current.execute(insn, verifier);
      if ((opcode >= Opcodes.IRETURN && opcode <= Opcodes.RETURN) || opcode == Opcodes.ATHROW) {
        reachable = false;
      }
    }
    return checked;
  }
}
