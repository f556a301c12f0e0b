// Trace: not written yet.
