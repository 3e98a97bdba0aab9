// Stands in for the sources of a library folder that has none yet.
