package com.kestrix.runtime;

import java.io.DataInputStream;
import java.io.DataOutputStream;
import java.io.IOException;

import com.kestrix.util.Strings;

/**
 * Framing and primitives of the protocol, for both ends. A frame is the magic, the type and a
 * payload whose layout the type alone determines: there is no length field, so a reader must
 * know what each type carries. Everything is big-endian.
 */
public final class Packet {
    public static final long MAGIC = Protocol.MAGIC;

    // A string is read into a buffer that grows with the bytes that actually arrive, so that a
    // corrupt length costs no more memory than the data behind it.
    private static final int INITIAL_STRING_BUFFER = 8192;
    // Java arrays can't be larger than this on any common JVM.
    private static final int MAX_ARRAY_LENGTH = Integer.MAX_VALUE - 8;

    private Packet() {
    }

    public static void writeHeader(DataOutputStream out, int type) throws IOException {
        out.writeLong(MAGIC);
        out.writeInt(type);
    }

    /**
     * Reads a header and returns its type. An error response is turned into a
     * PresentableException with the other end's reason.
     */
    public static int readHeader(DataInputStream in, String incompatibleMessage) throws IOException {
        long magic = in.readLong();
        if (magic != MAGIC) {
            throw new IOException("Invalid header magic number:" + magic);
        }
        int type = in.readInt();
        if (type == Protocol.PACKET_ERROR_RESP) {
            String reason = readString(in);
            if (reason != null && reason.startsWith(Protocol.UNKNOWN_PACKET_TYPE_PREFIX)) {
                // The other end is of another version.
                throw new PresentableException(incompatibleMessage, reason);
            }
            throw new PresentableException(reason);
        }
        return type;
    }

    public static int readHeader(DataInputStream in, int expectedType, String incompatibleMessage) throws IOException {
        int type = readHeader(in, incompatibleMessage);
        if (type != expectedType) {
            throw new PresentableException(incompatibleMessage,
                    "Wrong packet type: " + type + ", expected " + expectedType);
        }
        return type;
    }

    public static void readHeaderWithStandardResponse(DataInputStream in) throws IOException {
        readHeader(in, Protocol.PACKET_OK_RESP, Protocol.INCOMPATIBLE_AGENT_MESSAGE);
    }

    public static void writeInt(DataOutputStream out, int value) throws IOException {
        out.writeInt(value);
    }

    public static int readInt(DataInputStream in) throws IOException {
        return in.readInt();
    }

    public static void writeLong(DataOutputStream out, long value) throws IOException {
        out.writeLong(value);
    }

    public static long readLong(DataInputStream in) throws IOException {
        return in.readLong();
    }

    /** A boolean travels as the int 0 or 1. */
    public static void writeBoolean(DataOutputStream out, boolean value) throws IOException {
        out.writeInt(value ? 1 : 0);
    }

    public static boolean readBoolean(DataInputStream in) throws IOException {
        return in.readInt() != 0;
    }

    /** The first 'length' bytes of the array, as they are. */
    public static void writeBytes(DataOutputStream out, byte[] bytes, int length) throws IOException {
        if (bytes == null) {
            throw new IllegalArgumentException("value cannot be null");
        }
        out.write(bytes, 0, length);
    }

    /** One read into the array; returns what that read gave, -1 at the end of the stream. */
    public static int readBytes(DataInputStream in, byte[] bytes) throws IOException {
        return in.read(bytes);
    }

    public static void writeString(DataOutputStream out, String text) throws IOException {
        if (text == null) {
            out.writeInt(-1);
            return;
        }
        byte[] bytes = Strings.getUTF8Bytes(text);
        out.writeInt(bytes.length);
        out.write(bytes);
    }

    /** A string, or null for the length -1. */
    public static String readString(DataInputStream in) throws IOException {
        int length = in.readInt();
        if (length == -1) {
            return null;
        }
        if (length < 0) {
            throw new PresentableException(Protocol.INCORRECT_DATA_MESSAGE, "Negative string length: " + length);
        }
        if (length > MAX_ARRAY_LENGTH) {
            throw new PresentableException(Protocol.INCORRECT_DATA_MESSAGE, "Cannot allocate " + length + " bytes");
        }
        byte[] bytes;
        try {
            bytes = new byte[Math.min(length, INITIAL_STRING_BUFFER)];
            int read = 0;
            while (read < length) {
                if (read == bytes.length) {
                    byte[] bigger = new byte[(int) Math.min((long) length, 2L * bytes.length)];
                    System.arraycopy(bytes, 0, bigger, 0, read);
                    bytes = bigger;
                }
                in.readFully(bytes, read, bytes.length - read);
                read = bytes.length;
            }
        } catch (OutOfMemoryError e) {
            throw new PresentableException(Protocol.INCORRECT_DATA_MESSAGE, "Cannot allocate " + length + " bytes");
        }
        return Strings.fromUTF8(bytes, 0, length);
    }

    public static String readStringNotNull(DataInputStream in) throws IOException {
        String text = readString(in);
        if (text == null) {
            throw new PresentableException(Protocol.INCORRECT_DATA_MESSAGE, "Unexpected null string");
        }
        return text;
    }

    public static void flush(DataOutputStream out) throws IOException {
        out.flush();
    }
}
