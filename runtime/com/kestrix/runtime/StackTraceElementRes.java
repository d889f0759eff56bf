package com.kestrix.runtime;

import java.io.DataInputStream;
import java.io.DataOutputStream;
import java.io.IOException;

/** One frame of a thread dump, as it travels to the client. */
public final class StackTraceElementRes {
    public final String myClassName;
    public final String myMethodName;
    public final String myFileName;
    public final int myLineNumber;

    public StackTraceElementRes(String className, String methodName, String fileName, int lineNumber) {
        myClassName = className;
        myMethodName = methodName;
        myFileName = fileName;
        myLineNumber = lineNumber;
    }

    public void write(DataOutputStream out) throws IOException {
        Packet.writeString(out, myClassName);
        Packet.writeString(out, myMethodName);
        Packet.writeString(out, myFileName);
        Packet.writeInt(out, myLineNumber);
    }

    public static StackTraceElementRes read(DataInputStream in) throws IOException {
        String className = Packet.readString(in);
        String methodName = Packet.readString(in);
        String fileName = Packet.readString(in);
        return new StackTraceElementRes(className, methodName, fileName, Packet.readInt(in));
    }

    public String toString() {
        return myClassName + "." + myMethodName + "(" + myFileName + ":" + myLineNumber + ")";
    }
}
