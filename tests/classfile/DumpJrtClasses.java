// Writes every class of the running JDK's own modules (read through the jrt:/ file system)
// into one corpus file for the class-file round trip, the benchmark and the fuzzer's seeds.
//
// Run it with the java of the JDK to dump, in source-file mode:
//   <jdk>/bin/java tests/classfile/DumpJrtClasses.java <corpus file> [max classes]
//   <jdk>/bin/java tests/classfile/DumpJrtClasses.java --seeds <directory> <count> <max bytes>
// The second form writes a sample of 'count' classes of at most 'max bytes', spread evenly
// over the modules, one file each: the fuzzer's seed corpus.
//
// The corpus is a sequence of records, each a big-endian u4 name length, the name
// ("module/path/Name.class") in UTF-8, a u4 data length and the class bytes, in sorted name
// order so that two dumps of one JDK are equal.
import java.io.BufferedOutputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.net.URI;
import java.nio.charset.StandardCharsets;
import java.nio.file.FileSystem;
import java.nio.file.FileSystems;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.List;
import java.util.stream.Collectors;
import java.util.stream.Stream;

public class DumpJrtClasses {
  public static void main(String[] args) throws IOException {
    if (args.length < 1) {
      System.err.println("usage: java DumpJrtClasses.java <corpus file> [max classes]");
      System.exit(2);
    }
    if (args[0].equals("--seeds")) {
      writeSeeds(Paths.get(args[1]), Integer.parseInt(args[2]), Integer.parseInt(args[3]));
      return;
    }
    int max = args.length > 1 ? Integer.parseInt(args[1]) : Integer.MAX_VALUE;
    List<Path> classes = allClasses();
    classes = classes.subList(0, Math.min(max, classes.size()));
    long bytes = 0;
    try (DataOutputStream out = new DataOutputStream(new BufferedOutputStream(Files.newOutputStream(Paths.get(args[0])), 1 << 20))) {
      for (Path p : classes) {
        byte[] name = p.toString().substring("/modules/".length()).getBytes(StandardCharsets.UTF_8);
        byte[] data = Files.readAllBytes(p);
        out.writeInt(name.length);
        out.write(name);
        out.writeInt(data.length);
        out.write(data);
        bytes += data.length;
      }
    }
    System.out.println("dumped " + classes.size() + " classes, " + bytes + " bytes, of " + System.getProperty("java.home"));
  }

  private static List<Path> allClasses() throws IOException {
    FileSystem jrt = FileSystems.getFileSystem(URI.create("jrt:/"));
    try (Stream<Path> walk = Files.walk(jrt.getPath("/modules"))) {
      return walk.filter(p -> p.toString().endsWith(".class")).sorted().collect(Collectors.toList());
    }
  }

  private static void writeSeeds(Path directory, int count, int maxBytes) throws IOException {
    Files.createDirectories(directory);
    List<Path> small = new java.util.ArrayList<>();
    for (Path p : allClasses()) {
      if (Files.size(p) <= maxBytes) {
        small.add(p);
      }
    }
    int step = Math.max(1, small.size() / Math.max(1, count));
    int written = 0;
    for (int i = 0; i < small.size() && written < count; i += step) {
      Files.write(directory.resolve(String.format("seed-%05d.class", written++)), Files.readAllBytes(small.get(i)));
    }
    System.out.println("wrote " + written + " seed classes into " + directory);
  }
}
