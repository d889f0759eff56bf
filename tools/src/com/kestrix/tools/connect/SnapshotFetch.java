package com.kestrix.tools.connect;

import com.kestrix.runtime.Packet;
import com.kestrix.runtime.PresentableException;
import com.kestrix.runtime.Protocol;
import java.io.DataInputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.io.OutputStream;
import java.util.function.LongConsumer;
import java.util.zip.DataFormatException;
import java.util.zip.Inflater;

/**
 * The compressed snapshot transfer, reading side. The agent sends the file's length, then each
 * block of the file as one complete raw deflate stream, cut into pieces that each carry an int
 * length, and ended by a length of 0. The end of the file follows from the length sent first.
 */
final class SnapshotFetch {
    private SnapshotFetch() {
    }

    /**
     * Asks for the file at the agent's path and writes its bytes to the stream. Returns the
     * length; reports the bytes done so far to the listener as they arrive.
     */
    static long fetch(AgentClient client, String path, OutputStream target, LongConsumer done, LongConsumer total)
            throws IOException {
        DataOutputStream out = client.begin(Protocol.PACKET_TRANSFER_SNAPSHOT_COMPRESSED_REQ);
        Packet.writeString(out, path);
        out.flush();
        DataInputStream in = client.in();
        client.expectOk();
        long length = Packet.readLong(in);
        if (length < 0) {
            throw incorrect("negative file length " + length);
        }
        total.accept(length);
        byte[] piece = new byte[Protocol.TRANSFER_COMPRESSED_CHUNK_SIZE];
        byte[] plain = new byte[Protocol.TRANSFER_UNCOMPRESSED_CHUNK_SIZE];
        Inflater inflater = new Inflater(true);
        try {
            long received = 0;
            while (received < length) {
                inflater.reset();
                while (true) {
                    int n = Packet.readInt(in);
                    if (n == 0) {
                        break;
                    }
                    if (n < 0 || n > piece.length) {
                        throw incorrect("compressed piece of " + n + " bytes");
                    }
                    if (inflater.finished()) {
                        throw incorrect("data after the end of a compressed block");
                    }
                    in.readFully(piece, 0, n);
                    inflater.setInput(piece, 0, n);
                    while (!inflater.needsInput() && !inflater.finished()) {
                        int k = inflater.inflate(plain);
                        if (k == 0 && inflater.needsDictionary()) {
                            throw incorrect("compressed block needs a dictionary");
                        }
                        received += k;
                        if (received > length) {
                            throw incorrect("more than the announced " + length + " bytes");
                        }
                        target.write(plain, 0, k);
                    }
                    done.accept(received);
                }
                if (!inflater.finished()) {
                    throw incorrect("compressed block ends early, after " + received + " of " + length + " bytes");
                }
            }
            return length;
        } catch (DataFormatException e) {
            throw incorrect("bad compressed data: " + e.getMessage());
        } finally {
            inflater.end();
        }
    }

    private static PresentableException incorrect(String detail) {
        return new PresentableException(Protocol.INCORRECT_DATA_FROM_AGENT_MESSAGE, detail);
    }
}
