// not written yet
