// SystemCall: not written yet.
