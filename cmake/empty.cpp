// The agent library is made of the objects of kjpcore; this file only gives CMake a source.
