// LogTool: not written yet.
