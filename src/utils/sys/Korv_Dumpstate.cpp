// Korv_Dumpstate: not written yet.
