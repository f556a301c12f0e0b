// Printer: not written yet.
