// Evaluates JavaScript with the object "events" of a generated QML type, and prints the calls of `Kelvo.log` that it
// makes:
//   kelvo_registry_qml <QML file> <directory of a module "Kelvo"> <expression>...
// An expression that throws prints the error.

#include <QCoreApplication>
#include <QQmlComponent>
#include <QQmlContext>
#include <QQmlEngine>
#include <QQmlExpression>
#include <cstdio>
#include <memory>

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  const QStringList arguments = QCoreApplication::arguments();
  QQmlEngine engine;
  engine.addImportPath(arguments.at(2));
  QObject::connect(&engine, &QQmlEngine::warnings, [](const QList<QQmlError>& all) {
    for (const QQmlError& each : all) std::printf("%s\n", qPrintable(each.toString()));
  });
  QQmlComponent component(&engine, QUrl::fromLocalFile(arguments.at(1)));
  const std::unique_ptr<QObject> events(component.create());
  if (!events) {
    std::printf("%s\n", qPrintable(component.errorString()));
    return 1;
  }
  for (const QString& text : arguments.mid(3)) {
    QQmlExpression expression(QQmlEngine::contextForObject(events.get()), events.get(), text);
    expression.evaluate();
    if (expression.hasError()) std::printf("%s\n", qPrintable(expression.error().description()));
  }
}
