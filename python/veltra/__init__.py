"""The engine's Python package: typed N-d arrays, and the types that py_pb adds (object, dictionary)."""
