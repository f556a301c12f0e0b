// Korv_Xem: not written yet.
