# The project's version, as in CMakeLists.txt (project(kvaec VERSION ...)).
# CMake refuses to configure when the two differ, and the test
# version.EveryVersionAgrees compares every place that carries it.
__version__ = "0.1.0"
