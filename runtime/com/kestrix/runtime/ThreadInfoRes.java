package com.kestrix.runtime;

import java.io.DataInputStream;
import java.io.DataOutputStream;
import java.io.IOException;

/** One thread of a thread dump, as it travels to the client. Times and counts are -1 when unknown. */
public final class ThreadInfoRes {
    public long myThreadId;
    public String myThreadName;
    public long myBlockedTime;
    public long myBlockedCount;
    public long myWaitedTime;
    public long myWaitedCount;
    public String myLockName;
    public long myLockOwnerId;
    public boolean myInNative;
    public boolean mySuspended;
    /** The ordinal of java.lang.Thread.State. */
    public int myState;
    public StackTraceElementRes[] myStackTrace = new StackTraceElementRes[0];

    public void write(DataOutputStream out) throws IOException {
        Packet.writeLong(out, myThreadId);
        Packet.writeString(out, myThreadName);
        Packet.writeLong(out, myBlockedTime);
        Packet.writeLong(out, myBlockedCount);
        Packet.writeLong(out, myWaitedTime);
        Packet.writeLong(out, myWaitedCount);
        Packet.writeString(out, myLockName);
        Packet.writeLong(out, myLockOwnerId);
        Packet.writeBoolean(out, myInNative);
        Packet.writeBoolean(out, mySuspended);
        Packet.writeInt(out, myState);
        Packet.writeInt(out, myStackTrace.length);
        for (int i = 0; i < myStackTrace.length; i++) {
            myStackTrace[i].write(out);
        }
    }

    public static ThreadInfoRes read(DataInputStream in) throws IOException {
        ThreadInfoRes info = new ThreadInfoRes();
        info.myThreadId = Packet.readLong(in);
        info.myThreadName = Packet.readString(in);
        info.myBlockedTime = Packet.readLong(in);
        info.myBlockedCount = Packet.readLong(in);
        info.myWaitedTime = Packet.readLong(in);
        info.myWaitedCount = Packet.readLong(in);
        info.myLockName = Packet.readString(in);
        info.myLockOwnerId = Packet.readLong(in);
        info.myInNative = Packet.readBoolean(in);
        info.mySuspended = Packet.readBoolean(in);
        info.myState = Packet.readInt(in);
        int frameCount = Packet.readInt(in);
        if (frameCount < 0) {
            throw new PresentableException(Protocol.INCORRECT_DATA_FROM_AGENT_MESSAGE,
                    "Negative frame count: " + frameCount);
        }
        // Frames arrive one by one; a corrupt count runs out of data, not of memory.
        java.util.ArrayList<StackTraceElementRes> frames = new java.util.ArrayList<StackTraceElementRes>();
        for (int i = 0; i < frameCount; i++) {
            frames.add(StackTraceElementRes.read(in));
        }
        info.myStackTrace = frames.toArray(new StackTraceElementRes[frames.size()]);
        return info;
    }
}
