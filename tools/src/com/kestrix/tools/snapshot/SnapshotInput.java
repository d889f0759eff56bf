package com.kestrix.tools.snapshot;

import java.io.EOFException;
import java.io.IOException;
import java.io.InputStream;

/**
 * Little-endian primitives over a stream, as the agent writes them, counting the bytes read so
 * that errors can say where they happened. A read past the end throws EOFException.
 */
final class SnapshotInput {
    private final InputStream myIn;
    private final byte[] myBuffer = new byte[1 << 16];
    private int myPosition;
    private int myLimit;
    private long myOffset;

    SnapshotInput(InputStream in) {
        myIn = in;
    }

    /** Bytes consumed so far. */
    long offset() {
        return myOffset;
    }

    /** True when no byte is left. */
    boolean atEnd() throws IOException {
        return myPosition == myLimit && !fill();
    }

    private boolean fill() throws IOException {
        int n;
        do {
            n = myIn.read(myBuffer, 0, myBuffer.length);
        } while (n == 0);
        if (n < 0) {
            return false;
        }
        myPosition = 0;
        myLimit = n;
        return true;
    }

    int readByte() throws IOException {
        if (myPosition == myLimit && !fill()) {
            throw new EOFException();
        }
        myOffset++;
        return myBuffer[myPosition++] & 0xFF;
    }

    int readInt() throws IOException {
        if (myLimit - myPosition >= 4) {
            byte[] b = myBuffer;
            int p = myPosition;
            myPosition += 4;
            myOffset += 4;
            return (b[p] & 0xFF) | (b[p + 1] & 0xFF) << 8 | (b[p + 2] & 0xFF) << 16 | (b[p + 3] & 0xFF) << 24;
        }
        return readByte() | readByte() << 8 | readByte() << 16 | readByte() << 24;
    }

    long readLong() throws IOException {
        long low = readInt() & 0xFFFFFFFFL;
        long high = readInt() & 0xFFFFFFFFL;
        return low | high << 32;
    }

    /** Passes over the next bytes. */
    void skip(long length) throws IOException {
        long left = length;
        while (left > 0) {
            if (myPosition == myLimit && !fill()) {
                throw new EOFException();
            }
            int n = (int) Math.min(left, myLimit - myPosition);
            myPosition += n;
            myOffset += n;
            left -= n;
        }
    }

    void readFully(byte[] target, int length) throws IOException {
        int done = 0;
        while (done < length) {
            if (myPosition == myLimit && !fill()) {
                throw new EOFException();
            }
            int n = Math.min(length - done, myLimit - myPosition);
            System.arraycopy(myBuffer, myPosition, target, done, n);
            myPosition += n;
            myOffset += n;
            done += n;
        }
    }

    /**
     * Text as the agent's string pool holds it: UTF-8 in the JVM's modified form, where a NUL is
     * two bytes and characters beyond the 16-bit range come as two encoded surrogates. Bytes that
     * are no valid sequence become U+FFFD.
     */
    static String decodeModifiedUtf8(byte[] bytes, int length) {
        StringBuilder text = new StringBuilder(length);
        int i = 0;
        while (i < length) {
            int b = bytes[i] & 0xFF;
            if (b < 0x80) {
                text.append((char) b);
                i++;
            } else if ((b & 0xE0) == 0xC0 && i + 1 < length && isContinuation(bytes[i + 1])) {
                text.append((char) ((b & 0x1F) << 6 | bytes[i + 1] & 0x3F));
                i += 2;
            } else if ((b & 0xF0) == 0xE0 && i + 2 < length && isContinuation(bytes[i + 1])
                    && isContinuation(bytes[i + 2])) {
                text.append((char) ((b & 0x0F) << 12 | (bytes[i + 1] & 0x3F) << 6 | bytes[i + 2] & 0x3F));
                i += 3;
            } else if ((b & 0xF8) == 0xF0 && i + 3 < length && isContinuation(bytes[i + 1])
                    && isContinuation(bytes[i + 2]) && isContinuation(bytes[i + 3])) {
                int codePoint = (b & 0x07) << 18 | (bytes[i + 1] & 0x3F) << 12 | (bytes[i + 2] & 0x3F) << 6
                        | bytes[i + 3] & 0x3F;
                if (Character.isValidCodePoint(codePoint)) {
                    text.appendCodePoint(codePoint);
                } else {
                    text.append('\uFFFD');
                }
                i += 4;
            } else {
                text.append('\uFFFD');
                i++;
            }
        }
        return text.toString();
    }

    private static boolean isContinuation(byte b) {
        return (b & 0xC0) == 0x80;
    }
}
