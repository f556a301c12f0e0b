// ThreadLoop: not written yet.
