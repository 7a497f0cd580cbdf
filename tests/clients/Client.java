// One connection with what the second argument offers: "protocols=A,B", "suites=A,B" or "name=HOST".
import java.security.cert.X509Certificate;
import java.util.List;
import javax.net.ssl.SNIHostName;
import javax.net.ssl.SSLContext;
import javax.net.ssl.SSLParameters;
import javax.net.ssl.SSLSocket;
import javax.net.ssl.TrustManager;
import javax.net.ssl.X509TrustManager;

public class Client {
  public static void main(String[] arguments) throws Exception {
    TrustManager[] everything = {new X509TrustManager() {
      public void checkClientTrusted(X509Certificate[] chain, String kind) {}
      public void checkServerTrusted(X509Certificate[] chain, String kind) {}
      public X509Certificate[] getAcceptedIssuers() { return new X509Certificate[0]; }
    }};
    SSLContext context = SSLContext.getInstance("TLS");
    context.init(null, everything, null);
    int port = Integer.parseInt(arguments[0]);
    try (SSLSocket socket =
             (SSLSocket) context.getSocketFactory().createSocket("127.0.0.1", port)) {
      socket.setSoTimeout(8000);
      String[] offer = arguments[1].split("=");
      if (offer[0].equals("protocols")) {
        socket.setEnabledProtocols(offer[1].split(","));
      } else if (offer[0].equals("suites")) {
        socket.setEnabledCipherSuites(offer[1].split(","));
      } else if (offer[0].equals("name")) {
        SSLParameters parameters = socket.getSSLParameters();
        parameters.setServerNames(List.of(new SNIHostName(offer[1])));
        socket.setSSLParameters(parameters);
      }
      socket.startHandshake();
      socket.getOutputStream().write("GET / HTTP/1.0\r\n\r\n".getBytes());
      socket.getInputStream().read();
    } catch (java.io.IOException refused) {
    }
  }
}
