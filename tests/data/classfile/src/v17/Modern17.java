package kjptest;

import java.util.List;
import java.util.function.Function;
import java.util.function.Supplier;

// Lambdas, method references, records, nestmates, string switches, string concatenation by
// invokedynamic, a sealed hierarchy and a try-with-resources.
public class Modern17 {
  sealed interface Shape permits Circle, Square {}

  record Circle(double radius) implements Shape {}

  record Square(long side) implements Shape {}

  private int secret = 42;

  class Inner {
    int peek() {
      return secret;
    }
  }

  static double area(Shape shape) {
    if (shape instanceof Circle c) {
      return Math.PI * c.radius() * c.radius();
    }
    Square s = (Square) shape;
    return (double) s.side() * s.side();
  }

  static int kind(String s) {
    switch (s) {
      case "circle": return 1;
      case "square": return 2;
      default: return s.length();
    }
  }

  static String describe(List<Shape> shapes) {
    Function<Shape, String> f = sh -> sh + " has area " + area(sh);
    Supplier<StringBuilder> b = StringBuilder::new;
    StringBuilder out = b.get();
    for (Shape sh : shapes) {
      out.append(f.apply(sh)).append('\n');
    }
    return out.toString();
  }

  int inner() throws Exception {
    try (AutoCloseable res = () -> secret++) {
      return new Inner().peek();
    }
  }
}
