// Backtrace: not written yet.
