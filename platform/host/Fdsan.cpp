// Fdsan: not written yet.
