// Utils: not written yet.
