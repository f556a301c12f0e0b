// ULog: not written yet.
