// Filled in by its subsystem.
