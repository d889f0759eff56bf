package com.kestrix.memory;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.channels.FileChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.nio.file.StandardOpenOption;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.List;
import java.util.Map;

/**
 * A reader of snapshot files with a heap written for the tests alone, so that the file format,
 * not kjp's reading of it, is what the heap tests check. It keeps everything: objects, classes
 * with their field lists, every reference, the roots, the allocators, the primitive values and
 * the tables needed to name strings, frames and methods.
 */
final class HeapFile {
    static final byte[] MAGIC =
            "Kestrix Java Profiler snapshot, https://github.com/kestrix/kjpagent\u001A".getBytes(StandardCharsets.ISO_8859_1);

    record Field(String name, int modifiersOrLetter) {
    }

    static final class ClassRecord {
        int oid;
        String name;
        int superOid;
        long size;
        int generation;
        List<Integer> interfaces = new ArrayList<>();
        List<Field> staticReferences = new ArrayList<>();
        List<Field> instanceReferences = new ArrayList<>();
        List<Field> staticPrimitives = new ArrayList<>();
        List<Field> instancePrimitives = new ArrayList<>();
    }

    static final class ObjectRecord {
        int tag;
        int oid;
        int classOid;
        long size;
        int generation;
        int countOrLength;
        /** Reference field ordinal, or array index, to the referenced OID. */
        final Map<Integer, Integer> references = new HashMap<>();
    }

    record Root(int oid, int kind, int thread, int holder, int frame, String localName) {
    }

    record Allocator(int thread, int frame) {
    }

    final long flags;
    int announcedObjects;
    int announcedAllocators;
    final Map<Integer, ObjectRecord> objects = new HashMap<>();
    final Map<Integer, ClassRecord> classes = new HashMap<>();
    /** Class OID to static reference ordinal to value OID. */
    final Map<Integer, Map<Integer, Integer>> staticReferences = new HashMap<>();
    final List<Root> roots = new ArrayList<>();
    final Map<Integer, Allocator> allocators = new HashMap<>();
    final Map<Integer, Integer> classLoaders = new HashMap<>();
    long[] primitivePositions;
    ByteBuffer file;
    final Map<Integer, String> strings = new HashMap<>();
    /** Frame to {parent, method}. */
    final Map<Integer, int[]> frames = new HashMap<>();
    /** Method to "Class.method". */
    final Map<Integer, String> methods = new HashMap<>();
    final Map<Integer, String> threadNames = new HashMap<>();
    private final List<int[]> myPendingClassNames = new ArrayList<>();
    private final Map<ClassRecord, int[]> myFieldNameIds = new HashMap<>();

    private HeapFile(ByteBuffer in) {
        file = in;
        byte[] magic = new byte[MAGIC.length];
        in.get(magic);
        if (!java.util.Arrays.equals(magic, MAGIC)) {
            throw new IllegalStateException("not a snapshot");
        }
        if (in.get() != '9') {
            throw new IllegalStateException("format");
        }
        skipString();
        in.getLong(); // start time
        in.getInt(); // number
        if (in.getInt() != 4) {
            throw new IllegalStateException("OID width");
        }
        in.getLong();
        flags = in.getLong();
        in.getLong();
        skipString();
    }

    static HeapFile read(Path path) throws IOException {
        ByteBuffer buffer;
        try (FileChannel channel = FileChannel.open(path, StandardOpenOption.READ)) {
            buffer = channel.map(FileChannel.MapMode.READ_ONLY, 0, channel.size());
        }
        buffer.order(ByteOrder.LITTLE_ENDIAN);
        HeapFile heap = new HeapFile(buffer);
        heap.readBody();
        return heap;
    }

    private void skipString() {
        int length = file.getInt();
        if (length > 0) {
            file.position(file.position() + length);
        }
    }

    private String string() {
        int length = file.getInt();
        if (length < 0) {
            return null;
        }
        byte[] bytes = new byte[length];
        file.get(bytes);
        return new String(bytes, StandardCharsets.UTF_8);
    }

    private void readBody() {
        ByteBuffer in = file;
        while (in.hasRemaining()) {
            int tag = in.get() & 0xFF;
            switch (tag) {
                case 25:
                    announcedObjects = in.getInt();
                    in.getInt();
                    announcedAllocators = in.getInt();
                    break;
                case 3, 4, 5: {
                    ObjectRecord object = new ObjectRecord();
                    object.tag = tag;
                    object.oid = in.getInt();
                    object.classOid = in.getInt();
                    object.size = in.getLong();
                    object.generation = in.getInt();
                    object.countOrLength = in.getInt();
                    if (objects.put(object.oid, object) != null) {
                        throw new IllegalStateException("object " + object.oid + " twice");
                    }
                    break;
                }
                case 7:
                    in.getInt();
                    in.position(in.position() + 2 * in.getInt());
                    break;
                case 8:
                    allocators.put(in.getInt(), new Allocator(in.getInt(), in.getInt()));
                    break;
                case 9, 10: {
                    int from = in.getInt();
                    int to = in.getInt();
                    int index = in.getInt();
                    ObjectRecord referrer = objects.get(from);
                    if (referrer == null) {
                        throw new IllegalStateException("reference from " + from + " before its object");
                    }
                    referrer.references.put(index, to);
                    break;
                }
                case 11:
                    classLoaders.put(in.getInt(), in.getInt());
                    break;
                case 12, 13:
                    in.getInt();
                    in.getInt();
                    break;
                case 14: {
                    int from = in.getInt();
                    int to = in.getInt();
                    int ordinal = in.getInt();
                    staticReferences.computeIfAbsent(from, k -> new HashMap<>()).put(ordinal, to);
                    break;
                }
                case 15:
                    in.getInt();
                    in.getInt();
                    in.getInt();
                    break;
                case 39: {
                    long length = in.getLong();
                    in.position((int) (in.position() + length));
                    int count = in.getInt();
                    while (in.position() % 8 != 0) {
                        in.get();
                    }
                    primitivePositions = new long[count];
                    for (int i = 0; i < count; i++) {
                        primitivePositions[i] = in.getLong();
                    }
                    break;
                }
                case 40:
                    readClass();
                    break;
                case 43: {
                    int oid = in.getInt();
                    int kind = in.getInt();
                    int thread = in.getInt();
                    int holder = in.getInt();
                    int frame = in.getInt();
                    int name = in.getInt();
                    roots.add(new Root(oid, kind, thread, holder, frame, "#" + name));
                    break;
                }
                case 42:
                    readTable();
                    break;
                default:
                    throw new IllegalStateException("tag " + tag + " at " + (in.position() - 1));
            }
        }
        resolveNames();
    }

    private void readClass() {
        ByteBuffer in = file;
        ClassRecord c = new ClassRecord();
        int nameId = in.getInt();
        c.oid = in.getInt();
        c.superOid = in.getInt();
        c.size = in.getLong();
        c.generation = in.getInt();
        in.getLong();
        int interfaces = in.getInt();
        for (int i = 0; i < interfaces; i++) {
            c.interfaces.add(in.getInt());
        }
        List<List<Field>> lists = List.of(c.staticReferences, c.instanceReferences, c.staticPrimitives,
                c.instancePrimitives);
        List<Integer> nameIds = new ArrayList<>();
        for (int list = 0; list < 4; list++) {
            int count = in.getInt();
            for (int i = 0; i < count; i++) {
                int fieldName = in.getInt();
                int extra = list < 2 ? in.getInt() : in.get();
                nameIds.add(fieldName);
                lists.get(list).add(new Field(null, extra));
            }
        }
        myFieldNameIds.put(c, nameIds.stream().mapToInt(Integer::intValue).toArray());
        myPendingClassNames.add(new int[] {c.oid, nameId});
        if (classes.put(c.oid, c) != null) {
            throw new IllegalStateException("class " + c.oid + " twice");
        }
    }

    private static final int[][] WIDTHS = {
        {}, {4, 4, 4, 4, 8}, {4, 4, 4, 4}, {4, 4}, {4, 4, 4, 4, 8, 8}, {4, 4, 4, 4, 8, 8}, {8, 8}, {4, 4, 8},
        {4, 4, 4, 4}, {}, {4, 8}, {8, 8}, {4, 4, 4}, {4, 4, 8}, {4, 4},
        {4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4}, {4, 4, 4, 8}, {4, 4, 4, 4, 8}};

    private void readTable() {
        ByteBuffer in = file;
        int id = in.getInt();
        int count = in.getInt();
        for (int row = 0; row < count; row++) {
            int index = in.getInt();
            in.getInt(); // stamp
            if (id == 0) {
                strings.put(index, string());
                continue;
            }
            long[] values = new long[WIDTHS[id].length];
            for (int f = 0; f < values.length; f++) {
                values[f] = WIDTHS[id][f] == 4 ? in.getInt() : in.getLong();
            }
            if (id == 8) {
                frames.put(index, new int[] {(int) values[0], (int) values[1]});
            } else if (id == 2) {
                methods.put(index, values[2] + "." + values[0]);
            } else if (id == 1) {
                threadNames.put((int) values[3], String.valueOf(values[0]));
            }
        }
    }

    private String text(String idText) {
        return strings.get(Integer.parseInt(idText));
    }

    private void resolveNames() {
        for (int[] pending : myPendingClassNames) {
            classes.get(pending[0]).name = strings.get(pending[1]);
        }
        for (Map.Entry<ClassRecord, int[]> entry : myFieldNameIds.entrySet()) {
            ClassRecord c = entry.getKey();
            int[] ids = entry.getValue();
            int n = 0;
            for (List<Field> list : List.of(c.staticReferences, c.instanceReferences, c.staticPrimitives,
                    c.instancePrimitives)) {
                for (int i = 0; i < list.size(); i++) {
                    list.set(i, new Field(strings.get(ids[n++]), list.get(i).modifiersOrLetter()));
                }
            }
        }
        methods.replaceAll((k, v) -> {
            String[] parts = v.split("\\.");
            return strings.get(Integer.parseInt(parts[0])) + "." + strings.get(Integer.parseInt(parts[1]));
        });
        threadNames.replaceAll((k, v) -> text(v));
        List<Root> named = new ArrayList<>();
        for (Root root : roots) {
            int id = Integer.parseInt(root.localName().substring(1));
            named.add(new Root(root.oid(), root.kind(), root.thread(), root.holder(), root.frame(),
                    id == 0 ? null : strings.get(id)));
        }
        roots.clear();
        roots.addAll(named);
    }

    // ---- questions the tests ask ----

    /**
     * What is wrong with the dump as a whole, or null: an OID that no record stands for but
     * something refers to, an object whose class has no record, an announced count that the
     * records don't fill.
     */
    String problems() {
        List<String> problems = new ArrayList<>();
        if (announcedObjects != objects.size() + classes.size()) {
            problems.add(announcedObjects + " objects announced, " + (objects.size() + classes.size()) + " records");
        }
        for (ObjectRecord object : objects.values()) {
            if (!classes.containsKey(object.classOid)) {
                problems.add("object " + object.oid + " of class " + object.classOid + " without record");
            }
            for (int to : object.references.values()) {
                if (!objects.containsKey(to) && !classes.containsKey(to)) {
                    problems.add("object " + object.oid + " refers to " + to + " without record");
                }
            }
        }
        for (Map.Entry<Integer, Map<Integer, Integer>> statics : staticReferences.entrySet()) {
            for (int to : statics.getValue().values()) {
                if (!objects.containsKey(to) && !classes.containsKey(to)) {
                    problems.add("class " + statics.getKey() + " refers to " + to + " without record");
                }
            }
        }
        for (Root root : roots) {
            if (!objects.containsKey(root.oid()) && !classes.containsKey(root.oid())) {
                problems.add("root " + root + " without record");
            }
        }
        for (int oid : allocators.keySet()) {
            if (!objects.containsKey(oid) && !classes.containsKey(oid)) {
                problems.add("allocator of " + oid + " without record");
            }
        }
        return problems.isEmpty() ? null
                : problems.size() + " problems, first: " + String.join("; ", problems.subList(0, Math.min(5, problems.size())));
    }

    ClassRecord classNamed(String name) {
        ClassRecord found = null;
        for (ClassRecord c : classes.values()) {
            if (name.equals(c.name)) {
                if (found != null) {
                    throw new IllegalStateException("two classes " + name);
                }
                found = c;
            }
        }
        if (found == null) {
            throw new AssertionError("no class " + name);
        }
        return found;
    }

    List<ObjectRecord> instancesOf(String className) {
        int oid = classNamed(className).oid;
        List<ObjectRecord> result = new ArrayList<>();
        for (ObjectRecord object : objects.values()) {
            if (object.classOid == oid) {
                result.add(object);
            }
        }
        return result;
    }

    ClassRecord classOf(ObjectRecord object) {
        return classes.get(object.classOid);
    }

    /** The OID a static reference field of a class holds. */
    int staticField(String className, String field) {
        ClassRecord c = classNamed(className);
        for (int i = 0; i < c.staticReferences.size(); i++) {
            if (c.staticReferences.get(i).name().equals(field)) {
                Integer value = staticReferences.getOrDefault(c.oid, Map.of()).get(i);
                return value == null ? 0 : value;
            }
        }
        throw new AssertionError("no static field " + field + " in " + className);
    }

    /** The OID an instance reference field holds; 0 for null. */
    int field(int oid, String name) {
        ObjectRecord object = objects.get(oid);
        List<Field> fields = classOf(object).instanceReferences;
        for (int i = fields.size() - 1; i >= 0; i--) {
            if (fields.get(i).name().equals(name)) {
                return object.references.getOrDefault(i, 0);
            }
        }
        throw new AssertionError("no field " + name + " in " + classOf(object).name);
    }

    /** The offset of a primitive instance field in its object's block, with its letter. */
    private int[] primitiveOffset(ClassRecord c, String name) {
        int offset = 0;
        int[] found = null;
        for (Field f : c.instancePrimitives) {
            if (f.name().equals(name)) {
                found = new int[] {offset, f.modifiersOrLetter()};
            }
            offset += size((char) f.modifiersOrLetter());
        }
        if (found == null) {
            throw new AssertionError("no primitive field " + name + " in " + c.name);
        }
        return found;
    }

    static int size(char letter) {
        return switch (letter) {
            case 'B', 'Z' -> 1;
            case 'C', 'S' -> 2;
            case 'F', 'I' -> 4;
            default -> 8;
        };
    }

    long primitive(int oid, String name) {
        int[] at = primitiveOffset(classOf(objects.get(oid)), name);
        long position = primitivePositions[oid];
        if (position == 0) {
            throw new AssertionError("object " + oid + " has no primitive data");
        }
        int p = (int) position + at[0];
        return switch ((char) at[1]) {
            case 'B', 'Z' -> file.get(p);
            case 'C' -> file.getChar(p);
            case 'S' -> file.getShort(p);
            case 'I' -> file.getInt(p);
            case 'F' -> Float.floatToIntBits(file.getFloat(p));
            default -> file.getLong(p);
        };
    }

    /** The elements of a primitive array as bytes of the file. */
    byte[] arrayBytes(int oid, int elementSize) {
        ObjectRecord array = objects.get(oid);
        byte[] bytes = new byte[array.countOrLength * elementSize];
        if (bytes.length > 0) {
            file.get((int) primitivePositions[oid], bytes);
        }
        return bytes;
    }

    int[] intArray(int oid) {
        ByteBuffer data = ByteBuffer.wrap(arrayBytes(oid, 4)).order(ByteOrder.LITTLE_ENDIAN);
        int[] values = new int[objects.get(oid).countOrLength];
        for (int i = 0; i < values.length; i++) {
            values[i] = data.getInt();
        }
        return values;
    }

    /** A java.lang.String's text, from its value array and its coder (Latin-1 or UTF-16). */
    String stringValue(int oid) {
        int value = field(oid, "value");
        ObjectRecord array = objects.get(value);
        String arrayClass = classOf(array).name;
        if (arrayClass.equals("char[]")) {
            return new String(arrayBytes(value, 2), StandardCharsets.UTF_16LE);
        }
        byte coder = (byte) primitive(oid, "coder");
        return new String(arrayBytes(value, 1), coder == 0 ? StandardCharsets.ISO_8859_1 : StandardCharsets.UTF_16LE);
    }

    /** The methods of a frame's path, outermost first. */
    List<String> path(int frame) {
        List<String> path = new ArrayList<>();
        for (int f = frame; f > 0; ) {
            int[] record = frames.get(f);
            if (record == null) {
                path.add(0, "<missing " + f + ">");
                break;
            }
            path.add(0, methods.get(record[1]));
            f = record[0];
        }
        return path;
    }
}
