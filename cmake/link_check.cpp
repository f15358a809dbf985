// Linked with every object of one layer and only the layers below it: the
// link fails when the layer calls upward.
int main() {
  return 0;
}
