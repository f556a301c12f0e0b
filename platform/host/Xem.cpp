// Xem: not written yet.
