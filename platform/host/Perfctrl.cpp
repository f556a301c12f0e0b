// Perfctrl: not written yet.
