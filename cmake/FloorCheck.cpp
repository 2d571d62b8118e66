// Linked with all of one floor and the floors below it; see KivFloors.cmake.
int main() {
  return 0;
}
