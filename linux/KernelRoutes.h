// Keeps the host routes of kernel tables as they should be.
