package com.kestrix.runtime;

import static org.junit.jupiter.api.Assertions.assertArrayEquals;
import static org.junit.jupiter.api.Assertions.assertEquals;
import static org.junit.jupiter.api.Assertions.assertNull;
import static org.junit.jupiter.api.Assertions.assertThrows;
import static org.junit.jupiter.api.Assertions.assertTrue;

import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.io.DataInputStream;
import java.io.DataOutputStream;
import java.io.EOFException;
import java.io.IOException;
import java.nio.charset.StandardCharsets;

import org.junit.jupiter.api.Test;

class PacketTest {
    private interface Writing {
        void write(DataOutputStream out) throws IOException;
    }

    private static byte[] bytesOf(Writing writing) throws IOException {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        DataOutputStream out = new DataOutputStream(bytes);
        writing.write(out);
        out.flush();
        return bytes.toByteArray();
    }

    private static DataInputStream in(byte[] bytes) {
        return new DataInputStream(new ByteArrayInputStream(bytes));
    }

    @Test
    void headerIsBigEndianMagicAndType() throws IOException {
        byte[] frame = bytesOf(out -> Packet.writeHeader(out, Protocol.PACKET_PROGRESS));
        assertArrayEquals(new byte[] {0, 0, 0, 0, 0x07, 0x5B, (byte) 0xCD, 0x15, 0, 0x01, (byte) 0x88, (byte) 0xF8},
                frame);
        assertEquals(Protocol.PACKET_PROGRESS, Packet.readHeader(in(frame), Protocol.INCOMPATIBLE_AGENT_MESSAGE));
    }

    @Test
    void primitivesAndStringsRoundTrip() throws IOException {
        String nonAscii = "Gr\u00fc\u00dfe \u65e5\u672c \uD83D\uDE00";
        byte[] frame = bytesOf(out -> {
            Packet.writeInt(out, -7);
            Packet.writeLong(out, Long.MIN_VALUE + 3);
            Packet.writeBoolean(out, true);
            Packet.writeString(out, null);
            Packet.writeString(out, "");
            Packet.writeString(out, nonAscii);
            Packet.writeBytes(out, new byte[] {1, 2, 3, 4}, 2);
        });
        DataInputStream in = in(frame);
        assertEquals(-7, Packet.readInt(in));
        assertEquals(Long.MIN_VALUE + 3, Packet.readLong(in));
        assertEquals(1, Packet.readInt(in), "a boolean travels as the int 1");
        assertNull(Packet.readString(in));
        assertEquals("", Packet.readString(in));
        assertEquals(nonAscii, Packet.readString(in));
        byte[] raw = new byte[8];
        assertEquals(2, Packet.readBytes(in, raw));
        assertEquals(1, raw[0]);
        assertEquals(2, raw[1]);

        // Null is -1 with no bytes, the empty string 0; the length counts UTF-8 bytes.
        int utf8Length = nonAscii.getBytes(StandardCharsets.UTF_8).length;
        assertEquals(4 + 8 + 4 + 4 + 4 + 4 + utf8Length + 2, frame.length);
        DataInputStream lengths = in(frame);
        lengths.skipBytes(16);
        assertEquals(-1, lengths.readInt());
        assertEquals(0, lengths.readInt());
        assertEquals(utf8Length, lengths.readInt());
    }

    @Test
    void wrongMagicIsAnIOException() {
        byte[] frame = bytesOf0(out -> {
            out.writeLong(123456788L);
            out.writeInt(Protocol.PACKET_OK_RESP);
        });
        IOException e = assertThrows(IOException.class,
                () -> Packet.readHeader(in(frame), Protocol.INCOMPATIBLE_AGENT_MESSAGE));
        assertEquals("Invalid header magic number:123456788", e.getMessage());
    }

    @Test
    void errorResponsesBecomePresentableExceptions() {
        byte[] unknown = bytesOf0(out -> {
            Packet.writeHeader(out, Protocol.PACKET_ERROR_RESP);
            Packet.writeString(out, "Unknown packet type: 5. Reason: profiler agent and client version mismatch");
        });
        PresentableException incompatible = assertThrows(PresentableException.class,
                () -> Packet.readHeaderWithStandardResponse(in(unknown)));
        assertEquals(Protocol.INCOMPATIBLE_AGENT_MESSAGE, incompatible.getMessage());
        assertEquals("Unknown packet type: 5. Reason: profiler agent and client version mismatch",
                incompatible.getCause().getMessage());

        byte[] refused = bytesOf0(out -> {
            Packet.writeHeader(out, Protocol.PACKET_ERROR_RESP);
            Packet.writeString(out, "Already started");
        });
        PresentableException plain = assertThrows(PresentableException.class,
                () -> Packet.readHeaderWithStandardResponse(in(refused)));
        assertEquals("Already started", plain.getMessage());
        assertNull(plain.getCause());

        byte[] other = bytesOf0(out -> Packet.writeHeader(out, Protocol.PACKET_PROGRESS));
        PresentableException wrongType = assertThrows(PresentableException.class,
                () -> Packet.readHeader(in(other), Protocol.PACKET_OK_RESP, Protocol.INCOMPATIBLE_AGENT_MESSAGE));
        assertEquals(Protocol.INCOMPATIBLE_AGENT_MESSAGE, wrongType.getMessage());
        assertEquals("Wrong packet type: 100600, expected 1", wrongType.getCause().getMessage());
    }

    @Test
    void corruptStringLengthsFailWithoutTakingMemory() {
        PresentableException negative = assertThrows(PresentableException.class,
                () -> Packet.readString(in(bytesOf0(out -> out.writeInt(-2)))));
        assertEquals(Protocol.INCORRECT_DATA_MESSAGE, negative.getMessage());
        assertEquals("Negative string length: -2", negative.getCause().getMessage());

        PresentableException huge = assertThrows(PresentableException.class,
                () -> Packet.readString(in(bytesOf0(out -> out.writeInt(Integer.MAX_VALUE)))));
        assertEquals(Protocol.INCORRECT_DATA_MESSAGE, huge.getMessage());
        assertEquals("Cannot allocate 2147483647 bytes", huge.getCause().getMessage());

        // A large length with little behind it runs out of data, not of memory.
        Runtime runtime = Runtime.getRuntime();
        assertThrows(EOFException.class, () -> Packet.readString(in(bytesOf0(out -> {
            out.writeInt((int) Math.min(Integer.MAX_VALUE - 16, runtime.maxMemory()));
            out.write(new byte[100]);
        }))));

        PresentableException missing = assertThrows(PresentableException.class,
                () -> Packet.readStringNotNull(in(bytesOf0(out -> out.writeInt(-1)))));
        assertEquals("Unexpected null string", missing.getCause().getMessage());
    }

    @Test
    void longStringsCrossTheGrowingBuffer() throws IOException {
        StringBuilder text = new StringBuilder();
        for (int i = 0; i < 30000; i++) {
            text.append((char) ('a' + i % 26)).append(i % 7 == 0 ? "\u00e9" : "");
        }
        String expected = text.toString();
        assertEquals(expected, Packet.readString(in(bytesOf(out -> Packet.writeString(out, expected)))));
        assertTrue(expected.getBytes(StandardCharsets.UTF_8).length > 16384);
    }

    private static byte[] bytesOf0(Writing writing) {
        try {
            return bytesOf(writing);
        } catch (IOException e) {
            throw new AssertionError(e);
        }
    }
}
