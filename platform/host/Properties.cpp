// Properties: not written yet.
