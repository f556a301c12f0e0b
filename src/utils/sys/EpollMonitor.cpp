// EpollMonitor: not written yet.
