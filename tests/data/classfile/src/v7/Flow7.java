package kjptest;

import java.io.IOException;
import java.util.ArrayList;
import java.util.List;

// Branches, loops, handlers and a switch: code whose stack maps have every common frame form.
public class Flow7 {
  private long total = 1234567890123L;
  private double ratio = 2.5;
  private static final String TEXT = "gr\u00fc\u00dfe \u2603";

  public int loop(int n, long m, double d, Object o, int[] a) {
    int sum = 0;
    for (int i = 0; i < n; i++) {
      if (i % 3 == 0) {
        sum += i;
      } else if (a != null && i < a.length) {
        long x = m + i;
        sum += (int) x;
      }
    }
    switch (sum & 7) {
      case 0: return 1;
      case 1: case 2: return sum;
      default: break;
    }
    return o == null ? -1 : sum + (int) d;
  }

  public String guarded(String s) throws IOException {
    try {
      if (s.isEmpty()) {
        throw new IOException("empty");
      }
      return s.trim();
    } catch (IllegalStateException e) {
      return null;
    } finally {
      total++;
    }
  }

  public List<String> build(int n) {
    List<String> list = new ArrayList<String>(n > 0 ? n : 1);
    while (list.size() < n) {
      list.add(TEXT + ratio);
    }
    return list;
  }

  // The catalogue knows close()V, so this class is a J2EE candidate.
  public void close() {
    total = 0;
  }
}
