package com.kestrix.tools.kjp;

/** A small JSON writer: values appended in order, commas placed by nesting level. */
final class Json {
    private final StringBuilder myText = new StringBuilder();
    private final boolean[] myNeedsComma = new boolean[256];
    private int myDepth;

    Json beginObject() {
        value();
        myText.append('{');
        myNeedsComma[++myDepth] = false;
        return this;
    }

    Json endObject() {
        myDepth--;
        myText.append('}');
        return this;
    }

    Json beginArray() {
        value();
        myText.append('[');
        myNeedsComma[++myDepth] = false;
        return this;
    }

    Json endArray() {
        myDepth--;
        myText.append(']');
        return this;
    }

    Json name(String name) {
        value();
        string(name);
        myText.append(':');
        myNeedsComma[myDepth] = false;
        return this;
    }

    Json value(String text) {
        value();
        if (text == null) {
            myText.append("null");
        } else {
            string(text);
        }
        return this;
    }

    Json value(long number) {
        value();
        myText.append(number);
        return this;
    }

    Json value(boolean flag) {
        value();
        myText.append(flag);
        return this;
    }

    Json field(String name, String text) {
        return name(name).value(text);
    }

    Json field(String name, long number) {
        return name(name).value(number);
    }

    private void value() {
        if (myNeedsComma[myDepth]) {
            myText.append(',');
        }
        myNeedsComma[myDepth] = true;
    }

    private void string(String text) {
        myText.append('"');
        for (int i = 0; i < text.length(); i++) {
            char c = text.charAt(i);
            switch (c) {
                case '"': myText.append("\\\""); break;
                case '\\': myText.append("\\\\"); break;
                case '\n': myText.append("\\n"); break;
                case '\r': myText.append("\\r"); break;
                case '\t': myText.append("\\t"); break;
                default:
                    // '<' too, so that the text can stand inside an HTML script element.
                    if (c < 0x20 || c == '<' || c == '\u2028' || c == '\u2029') {
                        myText.append(String.format("\\u%04x", (int) c));
                    } else {
                        myText.append(c);
                    }
            }
        }
        myText.append('"');
    }

    @Override
    public String toString() {
        return myText.toString();
    }
}
