package com.kestrix.tools.kjp;

import java.util.ArrayList;
import java.util.List;

/** Java-style names of methods from the class name, method name and JVM descriptor the agent records. */
final class MethodNames {
    private MethodNames() {
    }

    /**
     * "com.example.App.compute(int, long[])": parameter types by their simple names, which keeps
     * lines short while the class stays fully qualified. 'separator' goes between parameters.
     */
    static String format(String className, String methodName, String descriptor, String separator) {
        StringBuilder name = new StringBuilder();
        if (className != null && !className.isEmpty()) {
            name.append(className).append('.');
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
