// Tests of this subsystem are added with its implementation.
