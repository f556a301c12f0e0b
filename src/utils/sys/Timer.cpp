// Timer: not written yet.
