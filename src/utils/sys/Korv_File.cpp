// Korv_File: not written yet.
