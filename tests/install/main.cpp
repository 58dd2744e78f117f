#include <orvel/OrvelDelegateClient.h>

#include <iostream>

int main() {
  auto& client = orvel::service_apis::OrvelDelegateClient::getClient();
  if (!client.initialize()) return 1;
  const std::string name = client.getDeviceName();
  client.shutdown();
  std::cout << name << "\n";
  return name.empty() ? 1 : 0;
}
