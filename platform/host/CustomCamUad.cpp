// CustomCamUad: not written yet.
