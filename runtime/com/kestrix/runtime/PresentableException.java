package com.kestrix.runtime;

/**
 * A failure whose message is meant for the user: the client shows it as it is, with the cause,
 * if any, as the detail.
 */
public class PresentableException extends RuntimeException {
    private static final long serialVersionUID = 1L;

    private final Throwable myCause;
    private Runnable myAfterDialogRunnable;

    public PresentableException(String message) {
        this(message, (Throwable) null);
    }

    /** A message with a detail text, which becomes the cause. */
    public PresentableException(String message, String detail) {
        this(message, new PresentableException(detail));
    }

    public PresentableException(String message, Throwable cause) {
        super(message);
        myCause = cause;
    }

    public Throwable getCause() {
        return myCause;
    }

    /** The detail, or null: the message of the cause. */
    public String getDetail() {
        return myCause == null ? null : myCause.getMessage();
    }

    public Runnable getAfterDialogRunnable() {
        return myAfterDialogRunnable;
    }

    public void setAfterDialogRunnable(Runnable runnable) {
        myAfterDialogRunnable = runnable;
    }
}
