// Entry point of the zevra executable.
#include <QApplication>
#include <QMainWindow>

int main(int argc, char** argv) {
  QApplication App(argc, argv);
  QMainWindow Window;
  Window.show();
  return App.exec();
}
