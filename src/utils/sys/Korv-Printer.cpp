// Korv-Printer: not written yet.
