package com.kestrix.tools.kjp;

import java.util.ArrayList;
import java.util.List;

/** Java-style names of methods from the class name, method name and JVM descriptor the agent records. */
final class MethodNames {
    private MethodNames() {
    }

    private static volatile boolean ourRawNames;

    /** Whether class names stay as the JVM gave them; by default they are normalised. */
    static void setRawNames(boolean raw) {
        ourRawNames = raw;
    }

    /**
     * A class name without what changes from run to run: the address of a hidden class
     * ("App$$Lambda/0x00007f..." or, from the agent, "App$$Lambda.0x00007f...") and the number
     * of a lambda ("$$Lambda$300"), so that two runs of a program give the same names.
     */
    static String normalizeClassName(String name) {
        if (ourRawNames || name == null) {
            return name;
        }
        String result = name;
        int address = result.indexOf(".0x");
        if (address < 0) {
            address = result.indexOf("/0x");
        }
        if (address > 0 && isHex(result, address + 3)) {
            result = result.substring(0, address);
        }
        int lambda = result.indexOf("$$Lambda$");
        if (lambda >= 0) {
            int end = lambda + "$$Lambda$".length();
            while (end < result.length() && Character.isDigit(result.charAt(end))) {
                end++;
            }
            if (end > lambda + "$$Lambda$".length()) {
                result = result.substring(0, lambda + "$$Lambda".length()) + result.substring(end);
            }
        }
        return result;
    }

    private static boolean isHex(String text, int from) {
        if (from >= text.length()) {
            return false;
        }
        for (int i = from; i < text.length(); i++) {
            if (Character.digit(text.charAt(i), 16) < 0) {
                return false;
            }
        }
        return true;
    }

    /**
     * "com.example.App.compute(int, long[])": parameter types by their simple names, which keeps
     * lines short while the class stays fully qualified. 'separator' goes between parameters.
     */
    static String format(String className, String methodName, String descriptor, String separator) {
        StringBuilder name = new StringBuilder();
        if (className != null && !className.isEmpty()) {
            name.append(normalizeClassName(className)).append('.');
        }
        name.append(methodName == null ? "<unknown>" : methodName);
        if (descriptor != null && !descriptor.isEmpty()) {
            List<String> parameters = parameterTypes(descriptor);
            if (parameters == null) {
                name.append(descriptor);
            } else {
                name.append('(').append(String.join(separator, parameters)).append(')');
            }
        }
        return name.toString();
    }

    /** The parameter types of a descriptor as simple Java names; null when it isn't a method descriptor. */
    static List<String> parameterTypes(String descriptor) {
        if (!descriptor.startsWith("(")) {
            return null;
        }
        List<String> types = new ArrayList<>();
        int i = 1;
        while (i < descriptor.length() && descriptor.charAt(i) != ')') {
            int dimensions = 0;
            while (i < descriptor.length() && descriptor.charAt(i) == '[') {
                dimensions++;
                i++;
            }
            if (i >= descriptor.length()) {
                return null;
            }
            char c = descriptor.charAt(i);
            String type;
            if (c == 'L') {
                int end = descriptor.indexOf(';', i);
                if (end < 0) {
                    return null;
                }
                String qualified = descriptor.substring(i + 1, end);
                type = qualified.substring(qualified.lastIndexOf('/') + 1);
                i = end + 1;
            } else {
                type = primitive(c);
                if (type == null) {
                    return null;
                }
                i++;
            }
            types.add(type + "[]".repeat(dimensions));
        }
        return i < descriptor.length() ? types : null;
    }

    private static String primitive(char c) {
        switch (c) {
            case 'Z': return "boolean";
            case 'B': return "byte";
            case 'C': return "char";
            case 'S': return "short";
            case 'I': return "int";
            case 'J': return "long";
            case 'F': return "float";
            case 'D': return "double";
            default: return null;
        }
    }
}
